// The SMTP agent's plug-in entry: turns the channel's addresses into the
// plain envelope addresses SMTP needs and hands over to the agent. A check
// or probe makes no agent, so it neither retries a spool left by an earlier
// run nor starts anything.

#include "Agents/common/AgentEntry.h"
#include "Agents/common/AgentException.h"
#include "Agents/common/EnvelopeStore.h"
#include "Agents/common/oauth2/OAuth2Exceptions.h"
#include "Agents/common/oauth2/TokenSources.h"
#include "Agents/smtp/SmtpAgent.h"
#include "Agents/smtp/SmtpSession.h"
#include "Osk/EmailAgent.h"

namespace {

using namespace Osk::EmailAgents;

// The settings as a delivery reads them; what works but should be fixed
// goes to `warnings`.
SmtpSettings _checked(const Params& params, CheckWarnings& warnings) {
    SmtpSettings settings = SmtpSettings::fromParams(params);
    warnings.add(settings.secretFileWarning());
    try {
        checkOAuth2Settings(settings.oauth2);
    } catch (const CheckWarningException& e) {
        warnings.add(std::string("SMTP agent: ") + e.what());
    } catch (const OAuth2Exception& e) {
        TAMTK_THROW(AgentParamException, "Agents/smtp", "SMTP agent: " << e.what());
    }
    if (!settings.spool.empty()) {
        checkStoreFolder(settings.spool, "SMTP agent: parameter \"spool\"");
    }
    return settings;
}

// One relay that answers still delivers, so a silent one among several is a
// warning; all silent, no mail goes out.
void _probeRelays(const SmtpSettings& settings, CheckWarnings& warnings) {
    std::unique_ptr<TokenCache> tokens;
    if (settings.oauth2.enabled) {
        tokens.reset(new TokenCache(makeTokenSource(settings.oauth2)));
        try {
            tokens->get();
        } catch (const OAuth2Exception& e) {
            TAMTK_THROW(AgentException, "Agents/smtp",
                        "SMTP agent: fails at fetching the OAuth2 token: " << e.what());
        }
    }
    std::vector<std::string> silent;
    for (const std::string& relay : settings.relays) {
        const std::string problem = SmtpSession::probe(settings, relay, tokens.get());
        if (!problem.empty()) {
            silent.push_back(problem);
        }
    }
    if (silent.size() == settings.relays.size()) {
        std::string all;
        for (const std::string& problem : silent) {
            all += (all.empty() ? "" : "; ") + problem;
        }
        TAMTK_THROW(AgentException, "Agents/smtp", "SMTP agent: " << all);
    }
    for (const std::string& problem : silent) {
        warnings.add("SMTP agent: " + problem + " (another relay answers)");
    }
}

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    runSendEmail(to, message,
                 {[&] {
                      CheckWarnings warnings;
                      _checked(params, warnings);
                      warnings.raise();
                  },
                  [&](const Osk::EmailChannel::ToList&) {
                      CheckWarnings warnings;
                      _probeRelays(_checked(params, warnings), warnings);
                      warnings.raise();
                  },
                  [&] {
                      deliverThrough([&]() -> DeliveryEngine& { return smtpAgentFor(params); },
                                     from, to, message);
                  }});
}
