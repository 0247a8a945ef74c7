#pragma once

// osk-host --send-test: one test alert through the configured channel and
// agent, waited for, and a plain answer to "does alerting work?".

#include <ostream>
#include <string>

#include "Programs/osk-host/HostLog.h"

namespace Osk {

struct SendTestOptions {
    std::string config;
    std::string channel;
    std::string to;  // replaces the configured recipients when not empty
};

// Sends the test alert and tells on `out` whether it was delivered, kept for
// later or lost, and why. Exit status: 0 delivered, 1 kept, 2 configuration
// failed, 3 lost, 64 a bad --to, 69 the plug-in could not be loaded.
int sendTest(const SendTestOptions& options, HostLog& log, std::ostream& out);

}  // namespace Osk
