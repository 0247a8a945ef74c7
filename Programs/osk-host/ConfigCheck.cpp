#include "Programs/osk-host/ConfigCheck.h"

#include <dlfcn.h>

#include <ostream>
#include <sstream>

#include "LogToolkit/Severity.h"
#include "Osk/Channel.h"
#include "Osk/EmailAgentBinding.h"
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
    channel->set_finding_reporter([&findings](const std::string& text) { findings.warning(text); });
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

// Whom a probe is made for: the channel's sender, an address the channel's
// own relays serve (a probe sends nothing to it). Empty when the channel
// refuses the address, and has said so.
EmailChannel::ToList _probeRecipients(const boost::shared_ptr<const Tamxml::Document>& doc) {
    try {
        const auto sender =
            Tamxml::find_first_value(doc, Tamxml::XPath("/Channel/Default/Sender/@email"));
        return sender ? EmailChannel::ToList{Tamnet::EmailAddr(sender->str())}
                      : EmailChannel::ToList();
    } catch (const Tamtk::Exception&) {
        return EmailChannel::ToList();
    }
}

// The agent's own check of its parameters (the null-message call of the
// agent contract) or, when asked, its probe.
void _checkAgent(const boost::shared_ptr<const Tamxml::Document>& doc, bool probe,
                 CheckFindings& findings) {
    const auto agent = EmailChannel::agentElement(doc);
    const std::string lib = agent ? EmailChannel::agentLibrary(*agent) : std::string();
    if (lib.empty()) {
        return;  // the channel has said so
    }
    EmailChannel::SendEmailFn* send = nullptr;
    try {
        send = EmailChannel::bindSendEmail(lib);
    } catch (const Tamtk::Exception& e) {
        findings.error("the agent " + lib + " does not load: " + e.what());
        return;
    }
    // The children it skips, the channel has reported.
    const EmailChannel::AgentParams params =
        EmailChannel::agentParams(*agent, [](const std::string&) {});
    const EmailChannel::ToList to = probe ? _probeRecipients(doc) : EmailChannel::ToList();
    if (probe && to.empty()) {
        return;
    }
    const std::string failed =
        "the agent " + lib + (probe ? " fails its probe: " : " refuses its parameters: ");
    try {
        send(Tamnet::EmailAddr(), to, nullptr, params);
        findings.ok("the agent " + lib +
                    (probe ? " reaches what it delivers through" : " accepts its parameters"));
    } catch (const Tamtk::Exception& e) {
        if (dynamic_cast<const EmailChannel::CheckWarning*>(&e) != nullptr) {
            findings.warning("the agent " + lib + " warns: " + e.what());
        } else {
            findings.error(failed + e.what());
        }
    } catch (const std::exception& e) {
        findings.error(failed + e.what());
    } catch (...) {
        findings.error(failed + "an unknown exception");
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
        _checkAgent(doc, request.probe, findings);
    }
    findings.print(out);
    findings.summary(out, request.config);
    return findings.status();
}

}  // namespace Osk
