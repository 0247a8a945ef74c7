#pragma once

// osk-host --check: what a configuration will do, found without sending
// anything. The channel accepts some faults silently (a token that does not
// load, a group that never fires); this is where the operator sees them.

#include <boost/shared_ptr.hpp>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace Tamxml {
class Document;
}

namespace Osk {

struct CheckRequest {
    std::string config;   // the configuration file
    std::string channel;  // the channel plug-in that must accept it
    bool probe = false;   // also ask each SMTP relay for EHLO
};

// The findings of a check, in the order they were made.
class CheckFindings {
public:
    void error(const std::string& text) { add("error", text); }
    void warning(const std::string& text) { add("warning", text); }
    void ok(const std::string& text) { add("ok", text); }

    // 0 nothing to report, 1 warnings only, 2 errors.
    int status() const { return errors_ > 0 ? 2 : warnings_ > 0 ? 1 : 0; }
    void print(std::ostream& out) const;
    void summary(std::ostream& out, const std::string& config) const;

private:
    void add(const char* kind, const std::string& text);

    std::vector<std::string> lines_;
    unsigned errors_ = 0;
    unsigned warnings_ = 0;
};

// Checks `request.config` and writes one line per finding to `out`, then a
// summary; returns the exit status (CheckFindings::status).
int checkConfiguration(const CheckRequest& request, std::ostream& out);

namespace internal {

// What the channel would accept silently: tokens that do not load and the
// templates they cut, placeholders without a token, groups without events,
// duplicate tokens and event ids.
void lintConfiguration(const boost::shared_ptr<const Tamxml::Document>& config,
                       CheckFindings& findings);

// Asks every relay of the SMTP agent's `url` (blank-separated) for EHLO.
void probeRelays(const std::map<std::string, std::string>& params, CheckFindings& findings);

}  // namespace internal
}  // namespace Osk
