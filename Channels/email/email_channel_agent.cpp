// Binding the email agent library and reading its parameters.

#include "Channels/email/config_fault.h"
#include "Channels/email/email_channel.h"
#include "Toolkit/ComponentLoader.h"

namespace Osk {

namespace {
typedef Tamtk::FunctionPointer<void, const Tamnet::EmailAddr&, const EmailChannel::ToList&,
                               const char*, const std::map<std::string, std::string>&>
    SendEmailCall;
}  // namespace

void email_channel::load_email_agent(const ChannelCfg& cfg) {
    auto pEmailAgentList =
        Tamxml::find_elements(cfg.document, Tamxml::XPath("/Channel/EmailAgent"));
    if (!(pEmailAgentList && !pEmailAgentList->empty())) {
        EMAIL_CFG_FAULT("pEmailAgentList && !pEmailAgentList->empty()", 189);
    }
    boost::shared_ptr<const Tamxml::Element> pEmailAgent = pEmailAgentList->front();
    if (!pEmailAgent) {
        EMAIL_CFG_FAULT("pEmailAgent", 191);
    }
    boost::shared_ptr<const Tamxml::Attr> pLibAttr = pEmailAgent->attr("lib");
    if (!(pLibAttr && pLibAttr->value() && !pLibAttr->value()->empty())) {
        EMAIL_CFG_FAULT("pLibAttr && pLibAttr->value()", 193);
    }

    // Mode 1: lazy binding. The registry opens a library once and keeps it.
    const Tamtk::Loader& loader =
        Tamtk::ComponentLoaderT<Tamtk::internal::loader::global_component_registry>::instance().get(
            pLibAttr->value()->str(), 1);
    send_email_ = loader.loadFunction<SendEmailCall>("sendEmail");

    auto params = Tamxml::find_elements(pEmailAgent, Tamxml::XPath("*"));
    if (!params) {
        return;
    }
    for (const auto& param : *params) {
        try {
            boost::shared_ptr<const Tamxml::Attr> pName = param->attr("name");
            boost::shared_ptr<const Tamxml::Attr> pValue = param->attr("value");
            if (!(pName && pValue)) {
                EMAIL_CFG_FAULT("pName && pValue", 212);
            }
            agent_params_.insert(std::make_pair(pName->value_cast<std::string>(),
                                                pValue->value_cast<std::string>()));
        } catch (const Tamtk::Exception& e) {
            // One bad parameter is reported and skipped; the others still count.
            report_error(Tamlog::sev::warning, e.what());
        }
    }
}

}  // namespace Osk
