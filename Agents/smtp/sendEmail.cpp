// The SMTP agent's plug-in entry: turns the channel's addresses into the
// plain envelope addresses SMTP needs and hands over to the agent.

#include "Agents/common/AgentException.h"
#include "Agents/smtp/SmtpAgent.h"
#include "Osk/EmailAgent.h"

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    using namespace Osk::EmailAgents;
    if (message == nullptr && to.empty()) {
        // A check of the parameters only: no agent, so no connection and no
        // retry of a spool left by an earlier run.
        SmtpSettings::fromParams(params);
        return;
    }
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
