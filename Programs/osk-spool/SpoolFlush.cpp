#include "Programs/osk-spool/SpoolFlush.h"

#include <chrono>
#include <memory>

#include "Agents/common/AgentException.h"
#include "Agents/common/Spool.h"
#include "Agents/digest/DigestSettings.h"
#include "Agents/smtp/SmtpAgent.h"
#include "Osk/EmailAgentBinding.h"
#include "XmlToolkit/Xml.h"

namespace Osk {

namespace {

// Long enough for a large spool over a slow link; a relay that cannot be
// reached ends the run long before.
const std::chrono::minutes _budget(10);

struct ConfigError {
    std::string text;
};

// The SMTP agent's parameters, read as the channel reads them. Behind the
// digest agent (which names in "agent" the agent it stands in front of), the
// SMTP agent gets what the digest agent passes on.
EmailAgents::Params _agentParams(const std::string& config, std::ostream& err) {
    const auto agent = EmailChannel::agentElement(Tamxml::Document::fromFile(config));
    if (!agent) {
        throw ConfigError{config + " has no /Channel/EmailAgent element"};
    }
    EmailAgents::Params params = EmailChannel::agentParams(*agent, [&](const std::string& problem) {
        err << "osk-spool: " << config << ": " << problem << "\n";
    });
    auto parts = EmailAgents::DigestSettings::split(params);
    if (parts.first.count("agent") != 0) {
        params = std::move(parts.second);
    }
    if (params.count("spool") == 0) {
        throw ConfigError{config + ": the EmailAgent has no \"spool\" parameter, so there is " +
                          "nothing to flush (is it the SMTP agent?)"};
    }
    return params;
}

}  // namespace

int flushSpool(const std::string& config, std::ostream& out, std::ostream& err) {
    EmailAgents::SmtpSettings settings;
    try {
        settings = EmailAgents::SmtpSettings::fromParams(_agentParams(config, err));
    } catch (const ConfigError& e) {
        err << "osk-spool: " << e.text << "\n";
        return 2;
    } catch (const Tamtk::Exception& e) {
        err << "osk-spool: " << config << ": " << e.what() << "\n";
        return 2;
    }
    if (!EmailAgents::Spool::isSpool(settings.spool)) {
        err << "osk-spool: \"" << settings.spool
            << "\" is not a spool (no new/, tmp/ and failed/ there)\n";
        return 2;
    }
    // This run is the drain: no background pass may take mail out of its
    // count, and the agent need not try again when it ends.
    settings.retryAtStart = false;
    settings.drainMs = 0;

    std::unique_ptr<EmailAgents::DeliveryEngine> engine;
    try {
        engine.reset(new EmailAgents::SmtpAgent(settings));
    } catch (const EmailAgents::AgentParamException& e) {
        err << "osk-spool: " << e.what() << "\n";  // a spool others may write to
        return 2;
    }
    const auto result = engine->drain(_budget);
    if (result.locked) {
        err << "osk-spool: the spool \"" << settings.spool
            << "\" is being delivered by another process; try again in a moment\n";
        return 1;
    }
    for (const std::string& problem : result.problems) {
        err << "osk-spool: " << problem << "\n";
    }
    out << result.delivered << " delivered, " << result.failed
        << " refused for some or all recipients (in failed/), " << result.waiting
        << " still waiting\n";
    return result.waiting == 0 ? 0 : 1;
}

}  // namespace Osk
