#pragma once

#include <string>

#include "Toolkit/Export.h"

namespace Tamnet {

// The text of a "Date" header for `time` (seconds since the epoch), in the
// local time zone with its numeric offset: "Tue, 05 Mar 2024 14:07:09 +0100".
// Day and month names come from the current time locale; mail needs the
// English ones of the "C" locale, which the host is left to choose.
TAMTK_API std::string rfc2822Date(long time);

}  // namespace Tamnet
