// Reading the tokens and the event groups of the configuration.

#include "Channels/email/email_channel.h"

namespace Osk {

bool email_channel::get_tokens(boost::shared_ptr<const Tamxml::Element> defaults) {
    auto pTokens = Tamxml::find_elements(defaults, Tamxml::XPath("../Tokens/Token"));
    TAMTK_ASSERT(pTokens, "email_channel");

    std::string pattern;
    std::vector<std::string> alternatives;
    for (const auto& element : *pTokens) {
        std::string key;
        const char* step = "";
        try {
            boost::shared_ptr<const Tamxml::Attr> pName = element->attr("name");
            TAMTK_ASSERT(pName, "email_channel");
            const std::string name = pName->value_cast<std::string>();
            boost::shared_ptr<const Tamxml::Attr> pDefault = element->attr("default");

            key = "%" + name + "%";
            // The name goes into the expression unescaped, and before the
            // definition is known to be good: a token that fails below keeps
            // its alternative, so its placeholder later cuts a message short.
            pattern += key;
            pattern += "|";
            alternatives.push_back(key);
            if (wants_findings()) {
                find_token_again(*element, key);
            }

            Token token;
            auto stylesheet =
                Tamxml::find_first_element(element, Tamxml::XPath("*[local-name()='stylesheet']"));
            if (stylesheet) {
                step = "its stylesheet does not compile: ";
                token.third = Tamxml::make_transform(stylesheet->copyToNewDoc());
            }
            if (boost::shared_ptr<const Tamxml::Attr> xpath = element->attr("xpath")) {
                step = "its xpath does not compile: ";
                token.first = Tamxml::XPath(xpath->value());
            }
            if (pDefault) {
                token.second = pDefault->value()->str();
            }
            if (!tokens_.insert(std::make_pair(key, token)).second) {
                report_error(Tamlog::sev::warning, "Error inserting into tokens map");
            }
        } catch (...) {
            // An unreadable token is skipped; the others still count.
            if (!key.empty()) {
                unloaded_tokens_.insert(key);
            }
            if (wants_findings()) {
                find_token_fault(*element, key, step);
            }
        }
    }

    if (tokens_.empty()) {
        return false;
    }
    // "%a%|%b%+": the "+" binds to the last "%" only, so the last placeholder
    // also matches with extra closing percent signs. Kept as it always was.
    const std::string::size_type bar = pattern.rfind('|');
    if (bar != std::string::npos) {
        pattern.erase(bar, 1);
    }
    pattern += "+";
    token_expr_.assign(pattern, boost::regex::perl);
    token_scan_.assign(alternatives);
    return true;
}

void email_channel::get_event_group(const ChannelCfg& cfg, const HeaderMap& defaults) {
    auto groups =
        Tamxml::find_elements(cfg.document, Tamxml::XPath("/Channel/EventGroup[@enabled='yes']"));
    if (!groups || groups->empty()) {
        return;
    }
    for (const auto& group : *groups) {
        event_group tmp_event_group;
        populate_extra_headers(group, "ExtraHeaders/*", tmp_event_group.extra_headers);
        merge_extra_headers(tmp_event_group.extra_headers, defaults);

        boost::shared_ptr<const Tamxml::Element> pMessage =
            Tamxml::find_first_element(group, Tamxml::XPath("./Message"));
        TAMTK_ASSERT(pMessage, "email_channel");
        tmp_event_group.message = pMessage->text();
        TAMTK_ASSERT(tmp_event_group.message, "email_channel");
        if (boost::shared_ptr<const Tamxml::Element> pSubject =
                Tamxml::find_first_element(group, Tamxml::XPath("./Subject"))) {
            tmp_event_group.subject = pSubject->text();
        }
        if (boost::shared_ptr<const Tamxml::Element> pThread =
                Tamxml::find_first_element(group, Tamxml::XPath("./Thread"))) {
            tmp_event_group.thread = pThread->text();
        }

        auto pEvents = Tamxml::find_elements(group, Tamxml::XPath("./Event[@enabled='yes']"));
        TAMTK_ASSERT(pEvents, "email_channel");
        for (const auto& event : *pEvents) {
            boost::shared_ptr<const Tamxml::Attr> pID = event->attr("id");
            TAMTK_ASSERT(pID, "email_channel");
            const unsigned long id = pID->value_cast<unsigned long>();
            if (!event_groups_.insert(std::make_pair(id, tmp_event_group)).second) {
                report_error(Tamlog::sev::warning, "Error inserting into event group map");
            }
        }
        if (wants_findings()) {
            find_group_faults(*group, *pEvents, tmp_event_group);
        }
    }
}

bool email_channel::get_event_group_info(unsigned long id,
                                         boost::shared_ptr<const Tamtk::Utf8Array>& message,
                                         HeaderMap& headers,
                                         boost::shared_ptr<const Tamtk::Utf8Array>* subject,
                                         boost::shared_ptr<const Tamtk::Utf8Array>* thread) {
    GroupMap::const_iterator found = event_groups_.find(id);
    if (found == event_groups_.end()) {
        return false;
    }
    message = found->second.message;
    headers = found->second.extra_headers;
    if (subject != nullptr) {
        *subject = found->second.subject;
    }
    if (thread != nullptr) {
        *thread = found->second.thread;
    }
    return true;
}

}  // namespace Osk
