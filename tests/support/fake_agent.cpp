// The one stand-in agent of the tests, benchmarks and fuzz targets.
//
// Parameters: every delivery is kept for testAgentMessage() and
// testAgentRecipients(), unless "mode" is "count": then nothing is kept, so
// that a long run measures the host and the channel alone. "fail" is the
// answer after that, also to a check: "kept" or "lost" throws a toolkit
// exception with that mark, "both" one with both, "tamtk" one with none,
// "std" a std::runtime_error, anything else an int. Every delivery is
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

struct Call {
    std::string message;
    std::vector<std::string> to;
};

struct State {
    std::size_t messages = 0;
    unsigned long long bytes = 0;
    std::vector<Call> recorded;
    ~State() { std::fprintf(stderr, "fake agent: %zu messages, %llu bytes\n", messages, bytes); }
};

State _agent;

struct fake_tag;
typedef Tamtk::ExceptionT<fake_tag> FakeError;

// An agent's own marked exceptions, as one written against the contract has.
template <class... Marks>
class Marked : public FakeError, public Marks... {
public:
    using FakeError::FakeError;
};
typedef Marked<Osk::EmailChannel::AlertKept> Kept;
typedef Marked<Osk::EmailChannel::AlertLost> Lost;
typedef Marked<Osk::EmailChannel::AlertKept, Osk::EmailChannel::AlertLost> Both;

void _answer(const std::string& answer) {
    if (answer.empty() || answer == "delivered")
        return;
    if (answer == "kept")
        TAMTK_THROW(Kept, "fake_agent", "agent kept the message");
    if (answer == "lost")
        TAMTK_THROW(Lost, "fake_agent", "agent lost the message");
    if (answer == "both")
        TAMTK_THROW(Both, "fake_agent", "agent kept and lost the message");
    if (answer == "tamtk")
        TAMTK_THROW(FakeError, "fake_agent", "agent refused the message");
    if (answer == "std")
        throw std::runtime_error("agent broke");
    throw 7;
}

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& /*from*/,
                                const Osk::EmailChannel::ToList& to, const char* message,
                                const std::map<std::string, std::string>& params) {
    auto fail = params.find("fail");
    const std::string answer = fail != params.end() ? fail->second : "";
    if (message == nullptr) {
        _answer(answer);
        return;  // a check of the parameters: nothing to deliver
    }
    ++_agent.messages;
    _agent.bytes += std::strlen(message);
    auto mode = params.find("mode");
    if (mode == params.end() || mode->second != "count") {
        Call call{message, {}};
        for (const auto& addr : to) {
            call.to.push_back(addr.asPlainString(false));
        }
        _agent.recorded.push_back(std::move(call));
    }
    _answer(answer);
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
