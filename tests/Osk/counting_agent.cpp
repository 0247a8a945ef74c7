// An email agent for the host's tests: counts the messages it is handed and
// keeps none of them, so a long run measures the host and the channel alone.
// The count is printed to standard error when the process exits.

#include <cstdio>
#include <cstring>

#include "Osk/EmailAgent.h"

namespace {

struct _Count {
    unsigned long messages = 0;
    unsigned long long bytes = 0;
    ~_Count() {
        std::fprintf(stderr, "counting agent: %lu messages, %llu bytes\n", messages, bytes);
    }
};

_Count _count;

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& /*from*/,
                                const Osk::EmailChannel::ToList& /*to*/, const char* message,
                                const std::map<std::string, std::string>& /*params*/) {
    if (message == nullptr) {
        return;  // a check: nothing to count
    }
    ++_count.messages;
    _count.bytes += std::strlen(message);
}
