// The digest agent's plug-in entry.

#include "Agents/common/AgentException.h"
#include "Agents/digest/DigestAgent.h"

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    using namespace Osk::EmailAgents;
    std::shared_ptr<DigestAgent> agent;
    try {
        agent = digestAgentFor(params);
    } catch (const Tamtk::Exception& e) {
        throwLost(e);  // no delivering agent to hand the mail to
    }
    agent->send(from, to, message);
}
