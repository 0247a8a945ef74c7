// The digest agent's plug-in entry. A check or probe is its own parameters'
// and then the delivering agent's: nothing is held, locked or started.

#include "Agents/common/AgentEntry.h"
#include "Agents/common/AgentException.h"
#include "Agents/common/EnvelopeStore.h"
#include "Agents/digest/DigestAgent.h"
#include "Osk/EmailAgentBinding.h"

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    using namespace Osk::EmailAgents;
    const auto passOn = [&](const Osk::EmailChannel::ToList& whom) {
        const DigestSettings settings = DigestSettings::fromParams(params);
        checkStoreFolder(settings.hold, "Digest agent: parameter \"hold\"");
        Osk::EmailChannel::bindSendEmail(settings.agent)(from, whom, nullptr, settings.inner);
    };
    const auto deliver = [&] {
        std::shared_ptr<DigestAgent> agent;
        try {
            agent = digestAgentFor(params);
        } catch (const Tamtk::Exception& e) {
            throwLost(e);  // no delivering agent to hand the mail to
        }
        agent->send(from, to, message);
    };
    runSendEmail(to, message, {[&] { passOn(Osk::EmailChannel::ToList()); }, passOn, deliver});
}
