#pragma once

#include "Osk/ChannelCfg.h"

// A configuration fault: the condition text, the enclosing function's
// signature, the channel's source name and the line that identifies the fault.
#define EMAIL_CFG_FAULT(text, line)                              \
    throw ::Osk::ConfigException(::Tamtk::ExceptionString(text), \
                                 TAMTK_HERE_AT("email_channel", line))
