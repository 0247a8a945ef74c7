// The SMTP agent's plug-in entry: turns the channel's addresses into the
// plain envelope addresses SMTP needs and hands over to the agent.

#include "Agents/common/AgentException.h"
#include "Agents/smtp/SmtpAgent.h"
#include "Channels/email/EmailAgent.h"

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    using namespace Osk::EmailAgents;
    SmtpAgent* found = nullptr;
    try {
        found = &smtpAgentFor(params);
    } catch (const Tamtk::Exception& e) {
        throwLost(e);  // no agent for these parameters: nothing can keep the mail
    }
    SmtpAgent& agent = *found;
    std::vector<std::string> recipients;
    recipients.reserve(to.size());
    for (const Tamnet::EmailAddr& r : to) {
        recipients.push_back(r.asPlainString(false));
    }
    agent.send(from.asPlainString(false), recipients, message);
}
