// An email agent that only counts, so that a benchmark of the channel
// measures the channel. On request it keeps the last message for a check.

#include <string>

#include "Osk/EmailAgent.h"

namespace {
unsigned long _calls = 0;
bool _keep = false;
std::string _last;
}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr&, const Osk::EmailChannel::ToList&,
                                const char* message, const std::map<std::string, std::string>&) {
    ++_calls;
    if (_keep) {
        _last = message;
    }
}

OSK_AGENT_EXPORT unsigned long countAgentCalls() {
    return _calls;
}

OSK_AGENT_EXPORT void countAgentKeep(bool keep) {
    _keep = keep;
}

OSK_AGENT_EXPORT const char* countAgentLast() {
    return _last.c_str();
}
