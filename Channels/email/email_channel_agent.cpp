// Binding the email agent library and reading its parameters.

#include "Channels/email/config_fault.h"
#include "Channels/email/email_channel.h"
#include "Osk/EmailAgentBinding.h"

namespace Osk {

void email_channel::load_email_agent(const ChannelCfg& cfg) {
    boost::shared_ptr<const Tamxml::Element> pEmailAgent = EmailChannel::agentElement(cfg.document);
    if (!pEmailAgent) {
        EMAIL_CFG_FAULT("pEmailAgentList && !pEmailAgentList->empty()", 189);
    }
    const std::string lib = EmailChannel::agentLibrary(*pEmailAgent);
    if (lib.empty()) {
        EMAIL_CFG_FAULT("pLibAttr && pLibAttr->value()", 193);
    }
    send_email_ = EmailChannel::bindSendEmail(lib);
    // One bad parameter is reported and skipped; the others still count.
    const EmailChannel::AgentParams params = EmailChannel::agentParams(
        *pEmailAgent,
        [this](const std::string& problem) { report_error(Tamlog::sev::warning, problem); });
    agent_params_.insert(params.begin(), params.end());
}

}  // namespace Osk
