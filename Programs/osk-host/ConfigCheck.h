#pragma once

// osk-host --check: what a configuration will do, found without sending
// anything. The channel accepts some faults silently (a token that does not
// load, a group that never fires) and tells them when asked; this is where
// the operator sees them, and the agent's own check or probe.

#include <iosfwd>
#include <string>
#include <vector>

namespace Osk {

struct CheckRequest {
    std::string config;   // the configuration file
    std::string channel;  // the channel plug-in that must accept it
    bool probe = false;   // also the agent's probe: reach what it delivers through
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

}  // namespace Osk
