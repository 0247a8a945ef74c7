// The one stand-in agent of the tests, benchmarks and fuzz targets.
//
// Parameters: every call is kept for testAgentMessage() and
// testAgentRecipients(), unless "mode" is "count": then nothing is kept, so
// that a long run measures the host and the channel alone. "fail" = "tamtk", "std" or "int"
// throws that kind of exception, also for a check call. Every delivery is
// counted, and the count is printed to standard error when the process
// exits: a test that sees it knows the library's static teardown ran.

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Osk/EmailAgent.h"
#include "Toolkit/Exceptions.h"

namespace {

struct _call {
    std::string message;
    std::vector<std::string> to;
};

struct _state {
    std::size_t messages = 0;
    unsigned long long bytes = 0;
    std::vector<_call> recorded;
    ~_state() { std::fprintf(stderr, "fake agent: %zu messages, %llu bytes\n", messages, bytes); }
};

_state _agent;

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& /*from*/,
                                const Osk::EmailChannel::ToList& to, const char* message,
                                const std::map<std::string, std::string>& params) {
    auto fail = params.find("fail");
    if (fail != params.end()) {
        if (fail->second == "tamtk") {
            TAMTK_THROW(Tamtk::FileException, "fake_agent", "agent refused the message");
        }
        if (fail->second == "std") {
            throw std::runtime_error("agent broke");
        }
        throw 7;
    }
    if (message == nullptr) {
        return;  // a check of the parameters: nothing to deliver
    }
    ++_agent.messages;
    _agent.bytes += std::strlen(message);
    auto mode = params.find("mode");
    if (mode == params.end() || mode->second != "count") {
        _call call{message, {}};
        for (const auto& addr : to) {
            call.to.push_back(addr.asPlainString(false));
        }
        _agent.recorded.push_back(std::move(call));
    }
}

// Deliveries since the last reset, recorded or not.
OSK_AGENT_EXPORT std::size_t testAgentCallCount() {
    return _agent.messages;
}

OSK_AGENT_EXPORT const char* testAgentMessage(std::size_t i) {
    return _agent.recorded.at(i).message.c_str();
}

OSK_AGENT_EXPORT const char* testAgentRecipients(std::size_t i) {
    static std::string joined;
    joined.clear();
    for (const auto& to : _agent.recorded.at(i).to) {
        joined += to + ";";
    }
    return joined.c_str();
}

OSK_AGENT_EXPORT void testAgentReset() {
    _agent.messages = 0;
    _agent.bytes = 0;
    _agent.recorded.clear();
}
