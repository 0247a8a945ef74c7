#include "Agents/common/AgentEntry.h"

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

void runSendEmail(const EmailChannel::ToList& to, const char* message, const AgentCalls& calls) {
    if (message != nullptr) {
        calls.deliver();
    } else if (to.empty()) {
        calls.check();
    } else {
        calls.probe(to);
    }
}

void CheckWarnings::add(const std::string& text) {
    if (!text.empty()) {
        texts_.push_back(text);
    }
}

void CheckWarnings::raise() const {
    if (texts_.empty()) {
        return;
    }
    std::string all = texts_.front();
    for (std::size_t i = 1; i < texts_.size(); ++i) {
        all += "; " + texts_[i];
    }
    TAMTK_THROW(CheckWarningException, "Agents/common", all);
}

}  // namespace EmailAgents
}  // namespace Osk
