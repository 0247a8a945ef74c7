#pragma once

#include <map>
#include <string>

#include "LogToolkit/Severity.h"

namespace Osk {

// The host's side of report_error: each report goes to the "stderr" log
// target, and to the system log when an identity is given; reports are
// counted by severity for the closing summary. Everything the host writes
// passes through clean(), so no text from an event or a channel can start a
// line of its own or drive the terminal; and nothing written here fails the
// run when standard error has gone away.
class HostLog {
public:
    explicit HostLog(const std::string& syslogIdent);

    void report(const Tamlog::severity_mask& sev, const std::string& text);
    // One line of the host's own on standard error: "osk-host: <text>".
    void note(const std::string& text) const;
    // "2 warning, 1 critical" or "none".
    std::string summary() const;
    // The reports so far by severity name.
    const std::map<std::string, unsigned long>& counts() const { return counts_; }

    // `text` with its control characters (C0, DEL and the UTF-8 encoded C1
    // range) written as escapes: \n, \r, \t, \xHH or \u00HH.
    static std::string clean(const std::string& text);

private:
    bool syslog_;
    std::map<std::string, unsigned long> counts_;
};

}  // namespace Osk
