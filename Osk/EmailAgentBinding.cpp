#include "Osk/EmailAgentBinding.h"

#include <dlfcn.h>

#include "Toolkit/ComponentLoader.h"
#include "XmlToolkit/Xml.h"

namespace Osk {
namespace EmailChannel {

namespace {

typedef Tamtk::FunctionPointer<void, const Tamnet::EmailAddr&, const ToList&, const char*,
                               const AgentParams&>
    SendEmailCall;

std::string _value(const Tamxml::Element& element, const char* name) {
    const auto attr = element.attr(name);
    return attr && attr->value() ? attr->value()->str() : std::string();
}

}  // namespace

boost::shared_ptr<const Tamxml::Element> agentElement(
    const boost::shared_ptr<const Tamxml::Document>& config) {
    const auto agents = Tamxml::find_elements(config, Tamxml::XPath("/Channel/EmailAgent"));
    return agents && !agents->empty() ? agents->front()
                                      : boost::shared_ptr<const Tamxml::Element>();
}

std::string agentLibrary(const Tamxml::Element& agent) {
    return _value(agent, "lib");
}

AgentParams agentParams(const Tamxml::Element& agent, const ParamProblem& problem) {
    AgentParams params;
    for (xmlNodePtr child = agent.get()->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE) {
            continue;
        }
        const Tamxml::Element param(agent.document(), child);
        const std::string where = "<" + param.name() + "> of EmailAgent (line " +
                                  std::to_string(xmlGetLineNo(child)) + ")";
        if (!param.attr("name") || !param.attr("value")) {
            problem(where + " lacks its name or value: skipped");
            continue;
        }
        const std::string name = _value(param, "name");
        const std::string value = _value(param, "value");
        if (name.empty() || value.empty()) {
            problem(where + " has an empty " + (name.empty() ? "name" : "value") + ": skipped");
            continue;
        }
        params.insert(std::make_pair(name, value));
    }
    return params;
}

SendEmailFn* bindSendEmail(const std::string& lib) {
    // Lazy binding, as the channel has always opened its agent: agents are
    // linked with every symbol defined (--no-undefined), so resolving each
    // one on its first call misses no fault and keeps opening cheap. Never
    // unmapped: an agent's threads and exit handlers (a spool drained, held
    // mail sent) run to the very end of the process, past the registry.
    return Tamtk::ComponentLoaderT<Tamtk::internal::loader::global_component_registry>::instance()
        .get(lib, RTLD_LAZY | RTLD_LOCAL | RTLD_NODELETE)
        .loadFunction<SendEmailCall>("sendEmail");
}

}  // namespace EmailChannel
}  // namespace Osk
