// An email agent for the tests: records every call, and throws on request
// (parameter "fail": "tamtk", "std" or "int").

#include <stdexcept>
#include <string>
#include <vector>

#include "Osk/EmailAgent.h"
#include "Toolkit/Exceptions.h"

namespace {

struct _Call {
    std::string from;
    std::vector<std::string> to;
    std::string message;
    std::map<std::string, std::string> params;
};

std::vector<_Call>& _calls() {
    static std::vector<_Call> calls;
    return calls;
}

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    auto fail = params.find("fail");
    if (fail != params.end()) {
        if (fail->second == "tamtk") {
            TAMTK_THROW(Tamtk::FileException, "test_agent", "agent refused the message");
        }
        if (fail->second == "std") {
            throw std::runtime_error("agent broke");
        }
        throw 7;
    }
    if (message == nullptr) {
        return;  // a check of the parameters: nothing to record
    }
    _Call call;
    call.from = from.asPlainString(false);
    for (const auto& addr : to) {
        call.to.push_back(addr.asPlainString(false));
    }
    call.message = message;
    call.params = params;
    _calls().push_back(call);
}

OSK_AGENT_EXPORT std::size_t testAgentCallCount() {
    return _calls().size();
}

OSK_AGENT_EXPORT const char* testAgentMessage(std::size_t i) {
    return _calls().at(i).message.c_str();
}

OSK_AGENT_EXPORT const char* testAgentRecipients(std::size_t i) {
    static std::string joined;
    joined.clear();
    for (const auto& to : _calls().at(i).to) {
        joined += to + ";";
    }
    return joined.c_str();
}

OSK_AGENT_EXPORT void testAgentReset() {
    _calls().clear();
}
