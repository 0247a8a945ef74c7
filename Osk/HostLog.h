#pragma once

#include <map>
#include <string>

#include "LogToolkit/Severity.h"

namespace Osk {

// The host's side of report_error: each report goes to the "stderr" log
// target, and to the system log when an identity is given; reports are
// counted by severity for the closing summary.
class HostLog {
public:
    explicit HostLog(const std::string& syslogIdent);

    void report(const Tamlog::severity_mask& sev, const std::string& text);
    // "2 warning, 1 critical" or "none".
    std::string summary() const;

private:
    bool syslog_;
    std::map<std::string, unsigned long> counts_;
};

}  // namespace Osk
