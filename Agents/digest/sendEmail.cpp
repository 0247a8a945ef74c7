// The digest agent's plug-in entry. A check or probe is its own parameters'
// and then the delivering agent's: nothing is held, locked or started.

#include "Agents/common/AgentEntry.h"
#include "Agents/digest/DigestAgent.h"
#include "Osk/EmailAgentBinding.h"

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    using namespace Osk::EmailAgents;
    const auto passOn = [&](const Osk::EmailChannel::ToList& whom) {
        const DigestSettings settings = DigestSettings::fromParams(params);
        Osk::EmailChannel::bindSendEmail(settings.agent)(from, whom, nullptr, settings.inner);
    };
    runSendEmail(to, message,
                 {[&] { passOn(Osk::EmailChannel::ToList()); }, passOn,
                  [&] { digestAgentFor(params)->send(from, to, message); }});
}
