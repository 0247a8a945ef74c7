// The Graph agent's plug-in entry. A check or probe makes no agent, so it
// neither retries a spool left by an earlier run nor starts anything.

#include "Agents/common/AgentEntry.h"
#include "Agents/common/AgentException.h"
#include "Agents/common/oauth2/OAuth2Settings.h"
#include "Agents/graph/GraphAgent.h"
#include "Osk/EmailAgent.h"

namespace {

using namespace Osk::EmailAgents;

GraphSettings _checked(const Params& params) {
    GraphSettings settings = GraphSettings::fromParams(params);
    checkOAuth2Settings(settings.oauth2);  // its warning (an open secret) ends the check
    return settings;
}

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    runSendEmail(to, message,
                 {[&] { _checked(params); },
                  [&](const Osk::EmailChannel::ToList&) {
                      const std::string problem = probeGraph(_checked(params));
                      if (!problem.empty()) {
                          TAMTK_THROW(AgentException, "Agents/graph", "Graph agent: " << problem);
                      }
                  },
                  [&] {
                      deliverThrough([&]() -> DeliveryEngine& { return graphAgentFor(params); },
                                     from, to, message);
                  }});
}
