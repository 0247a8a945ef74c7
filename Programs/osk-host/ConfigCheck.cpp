#include "Programs/osk-host/ConfigCheck.h"

#include <dlfcn.h>

#include <ostream>
#include <sstream>

#include "LogToolkit/Severity.h"
#include "Osk/Channel.h"
#include "Osk/EmailAgent.h"
#include "Toolkit/ComponentLoader.h"
#include "XmlToolkit/Xml.h"

namespace Osk {

void CheckFindings::add(const char* kind, const std::string& text) {
    lines_.push_back(std::string(kind) + ": " + text);
    if (kind == std::string("error")) {
        ++errors_;
    } else if (kind == std::string("warning")) {
        ++warnings_;
    }
}

void CheckFindings::print(std::ostream& out) const {
    for (const std::string& line : lines_) {
        out << line << '\n';
    }
}

void CheckFindings::summary(std::ostream& out, const std::string& config) const {
    out << "osk-host: " << config << ": " << errors_ << (errors_ == 1 ? " error, " : " errors, ")
        << warnings_ << (warnings_ == 1 ? " warning" : " warnings") << '\n';
}

namespace {

typedef boost::shared_ptr<Channel> (*CreateChannel)();

std::string _describe(const Tamtk::Exception& e) {
    std::ostringstream text;
    text << e.what() << " (at " << e.location() << ")";
    return text.str();
}

// Configures a channel of the plug-in as the host would, and keeps what it
// says; it is shut down again before any event.
void _configureChannel(const std::string& plugin,
                       const boost::shared_ptr<const Tamxml::Document>& doc,
                       CheckFindings& findings) {
    void* handle = dlopen(plugin.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        findings.error("the channel " + plugin + " does not load: " + dlerror());
        return;
    }
    CreateChannel create = reinterpret_cast<CreateChannel>(dlsym(handle, "createChannel"));
    if (create == nullptr) {
        findings.error("the channel " + plugin + " has no createChannel");
        return;
    }
    boost::shared_ptr<Channel> channel = create();
    channel->set_reporter([&findings](const Tamlog::severity_mask& sev, const std::string& text) {
        findings.warning("the channel reports (" + Tamlog::severityName(sev) + "): " + text);
    });
    try {
        if (channel->do_configure(ChannelCfg(doc))) {
            findings.ok("the channel accepts the configuration");
        } else {
            findings.error(
                "the channel does not take the configuration: no token loads, so it "
                "reads no event group and never sends mail");
        }
    } catch (const Tamtk::Exception& e) {
        findings.error("the channel refuses the configuration: " + _describe(e));
    } catch (const std::exception& e) {
        findings.error(std::string("the channel refuses the configuration: ") + e.what());
    }
    channel->do_shutdown();
    // The plug-in stays loaded: the agent it bound is the registry's now.
}

typedef Tamtk::FunctionPointer<void, const Tamnet::EmailAddr&, const EmailChannel::ToList&,
                               const char*, const std::map<std::string, std::string>&>
    SendEmailCall;

// The parameters as the channel passes them: children with a non-empty
// name and value, the first of a name winning.
std::map<std::string, std::string> _agentParams(
    const boost::shared_ptr<const Tamxml::Element>& agent) {
    std::map<std::string, std::string> params;
    auto children = Tamxml::find_elements(agent, Tamxml::XPath("*"));
    for (const auto& child : children ? *children : Tamxml::ElementArray()) {
        auto name = child->attr("name");
        auto value = child->attr("value");
        if (name && value && !name->value()->empty() && !value->value()->empty()) {
            params.insert(std::make_pair(name->value()->str(), value->value()->str()));
        }
    }
    return params;
}

// The agent's own check of its parameters (the null-message call of the
// agent contract), then, when asked, the relays it would deliver through.
void _checkAgent(const boost::shared_ptr<const Tamxml::Document>& doc, bool probe,
                 CheckFindings& findings) {
    auto agents = Tamxml::find_elements(doc, Tamxml::XPath("/Channel/EmailAgent"));
    if (!agents || agents->empty()) {
        return;  // the channel has said so
    }
    auto lib = agents->front()->attr("lib");
    if (!lib || lib->value()->empty()) {
        return;
    }
    const std::string name = lib->value()->str();
    SendEmailCall::func_type send = nullptr;
    try {
        send =
            Tamtk::ComponentLoaderT<Tamtk::internal::loader::global_component_registry>::instance()
                .get(name, 1)
                .loadFunction<SendEmailCall>("sendEmail");
    } catch (const Tamtk::Exception& e) {
        findings.error("the agent " + name + " does not load: " + e.what());
        return;
    }
    const std::map<std::string, std::string> params = _agentParams(agents->front());
    Tamnet::EmailAddr from;
    try {
        send(from, EmailChannel::ToList(), nullptr, params);
        findings.ok("the agent " + name + " accepts its parameters");
    } catch (const Tamtk::Exception& e) {
        findings.error("the agent " + name + " refuses its parameters: " + e.what());
        return;
    } catch (const std::exception& e) {
        findings.error("the agent " + name + " refuses its parameters: " + e.what());
        return;
    } catch (...) {
        findings.error("the agent " + name + " fails its check with an unknown exception");
        return;
    }
    if (probe) {
        internal::probeRelays(params, findings);
    }
}

}  // namespace

int checkConfiguration(const CheckRequest& request, std::ostream& out) {
    CheckFindings findings;
    boost::shared_ptr<const Tamxml::Document> doc;
    try {
        doc = Tamxml::Document::fromFile(request.config);
    } catch (const Tamtk::Exception& e) {
        findings.error(std::string("the configuration cannot be read: ") + e.what());
    }
    if (doc) {
        _configureChannel(request.channel, doc, findings);
        internal::lintConfiguration(doc, findings);
        _checkAgent(doc, request.probe, findings);
    }
    findings.print(out);
    findings.summary(out, request.config);
    return findings.status();
}

}  // namespace Osk
