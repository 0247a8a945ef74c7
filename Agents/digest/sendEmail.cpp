// The digest agent's plug-in entry.

#include "Agents/digest/DigestAgent.h"

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    using namespace Osk::EmailAgents;
    digestAgentFor(params)->send(from, to, message);
}
