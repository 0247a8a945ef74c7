// The Maildir agent's plug-in entry: the message already carries its
// recipients in its header, so the envelope is not needed.

#include "Agents/common/AgentException.h"
#include "Agents/maildir/MaildirAgent.h"
#include "Osk/EmailAgent.h"

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& /*from*/,
                                const Osk::EmailChannel::ToList& /*to*/, const char* message,
                                const std::map<std::string, std::string>& params) {
    using namespace Osk::EmailAgents;
    try {
        const MaildirSettings settings = MaildirSettings::fromParams(params);
        if (message == nullptr) {
            return;  // a check of the parameters only
        }
        deliverToMaildir(settings, message);
    } catch (const Tamtk::Exception& e) {
        // A Maildir keeps no copy of what it could not write.
        throwLost(e);
    }
}
