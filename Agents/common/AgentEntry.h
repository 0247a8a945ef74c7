#pragma once

// The plug-in entry of every agent: which of the contract's calls (see
// Osk/EmailAgent.h) a sendEmail call is, and the warnings a check or probe
// gathers before it answers.

#include <functional>
#include <string>
#include <vector>

#include "Osk/EmailAgent.h"

namespace Osk {
namespace EmailAgents {

// What an agent does for each kind of call.
struct AgentCalls {
    // Reads the parameters as a delivery would and throws what they are
    // worth (CheckWarningException for a warning); touches nothing.
    std::function<void()> check;
    // The check, then reaching what the agent delivers through for `to`.
    std::function<void(const EmailChannel::ToList& to)> probe;
    // Delivers the message.
    std::function<void()> deliver;
};

// A null message with no recipients is a check, with recipients a probe;
// anything else a delivery.
void runSendEmail(const EmailChannel::ToList& to, const char* message, const AgentCalls& calls);

// The warnings of one check or probe, answered together at its end.
class CheckWarnings {
public:
    // Keeps `text` unless it is empty.
    void add(const std::string& text);
    // Throws CheckWarningException with every text kept, when there is one.
    void raise() const;

private:
    std::vector<std::string> texts_;
};

}  // namespace EmailAgents
}  // namespace Osk
