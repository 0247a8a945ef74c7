// The part of --check that reads the configuration the way the channel
// does, to tell what the channel would accept without a word.

#include <libxml/tree.h>

#include <cctype>
#include <map>
#include <vector>

#include "Programs/osk-host/ConfigCheck.h"
#include "Toolkit/Exceptions.h"
#include "XmlToolkit/Xml.h"

namespace Osk {
namespace internal {
namespace {

const char* const _xslNamespace = "http://www.w3.org/1999/XSL/Transform";

std::string _line(const boost::shared_ptr<const Tamxml::Element>& element) {
    return "line " + std::to_string(xmlGetLineNo(element->get()));
}

// One Token element as the channel reads it: its placeholder stays in the
// channel's expression even when the definition fails to load.
struct _Token {
    std::string key;  // "%name%"
    std::string line;
    bool loads = true;
};

// Why a token's definition would fail to load; empty when it loads.
std::string _whyNotLoaded(const boost::shared_ptr<const Tamxml::Element>& token) {
    auto stylesheet =
        Tamxml::find_first_element(token, Tamxml::XPath("*[local-name()='stylesheet']"));
    if (stylesheet) {
        auto imports = Tamxml::find_elements(
            stylesheet, Tamxml::XPath(std::string(".//*[namespace-uri()='") + _xslNamespace +
                                      "' and (local-name()='import' or local-name()='include')]"));
        if (imports && !imports->empty()) {
            const auto& first = imports->front();
            auto href = first->attr("href");
            return "its stylesheet has xsl:" +
                   std::string(reinterpret_cast<const char*>(first->get()->name)) +
                   (href ? " href=\"" + href->value()->str() + "\"" : std::string()) + " (" +
                   _line(first) + "), which is refused: stylesheets may not read other files";
        }
        try {
            Tamxml::make_transform(stylesheet->copyToNewDoc());
        } catch (const Tamtk::Exception& e) {
            return std::string("its stylesheet does not compile: ") + e.what();
        }
    }
    if (auto xpath = token->attr("xpath")) {
        try {
            Tamxml::XPath compiled(xpath->value());
        } catch (const Tamtk::Exception& e) {
            return std::string("its xpath does not compile: ") + e.what();
        }
    }
    return std::string();
}

std::vector<_Token> _lintTokens(const boost::shared_ptr<const Tamxml::Element>& defaults,
                                CheckFindings& findings) {
    std::vector<_Token> tokens;
    auto elements = Tamxml::find_elements(defaults, Tamxml::XPath("../Tokens/Token"));
    std::map<std::string, std::string> firstLine;
    for (const auto& element : elements ? *elements : Tamxml::ElementArray()) {
        auto name = element->attr("name");
        if (!name || name->value()->empty()) {
            findings.warning("the token at " + _line(element) +
                             " has no name: the channel skips it");
            continue;
        }
        _Token token;
        token.key = "%" + name->value()->str() + "%";
        token.line = _line(element);
        const std::string why = _whyNotLoaded(element);
        if (!why.empty()) {
            token.loads = false;
            findings.warning("the token " + token.key + " (" + token.line +
                             ") does not load: " + why);
        }
        auto seen = firstLine.insert(std::make_pair(token.key, token.line));
        if (!seen.second) {
            findings.warning("the token " + token.key + " is defined again at " + token.line +
                             " (first at " + seen.first->second +
                             "): the first definition that loads is used");
        }
        tokens.push_back(token);
    }
    return tokens;
}

bool _nameChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.' ||
           c == ':';
}

// Walks the template the way the channel's expression does (leftmost match,
// alternatives in token order, the last one taking every "%" after it) and
// reports where the rendering would stop, and text that looks like a
// placeholder but names no token and so is sent as written.
void _lintTemplate(const std::string& text, const std::string& group,
                   const std::vector<_Token>& tokens, CheckFindings& findings) {
    for (std::string::size_type at = text.find('%'); at != std::string::npos;
         at = text.find('%', at + 1)) {
        const _Token* matched = nullptr;
        for (const _Token& token : tokens) {
            if (text.compare(at, token.key.size(), token.key) == 0) {
                matched = &token;
                break;
            }
        }
        if (matched != nullptr) {
            const bool last = matched == &tokens.back();
            const std::string::size_type end = at + matched->key.size();
            bool loads = false;
            for (const _Token& token : tokens) {
                loads = loads || (token.key == matched->key && token.loads);
            }
            if (!loads) {
                findings.warning(
                    "the message of the event group at " + group + " is cut at " + matched->key +
                    ": that token does not load, so the placeholder and all text after it "
                    "are left out of every mail");
                return;
            }
            if (last && end < text.size() && text[end] == '%') {
                findings.warning(
                    "the message of the event group at " + group + " is cut at " + matched->key +
                    "%: the last token's placeholder followed by \"%\" is read as one "
                    "placeholder that names no token, and the text from there on is left out");
                return;
            }
            at = end - 1;
            continue;
        }
        std::string::size_type end = at + 1;
        while (end < text.size() && _nameChar(text[end])) {
            ++end;
        }
        if (end > at + 1 && end < text.size() && text[end] == '%') {
            findings.warning("the message of the event group at " + group + " has " +
                             text.substr(at, end + 1 - at) +
                             ", which names no token: it is sent as written");
            at = end - 1;
        }
    }
}

void _lintGroups(const boost::shared_ptr<const Tamxml::Document>& config,
                 const std::vector<_Token>& tokens, CheckFindings& findings) {
    auto groups =
        Tamxml::find_elements(config, Tamxml::XPath("/Channel/EventGroup[@enabled='yes']"));
    std::map<unsigned long, std::string> owner;
    for (const auto& group : groups ? *groups : Tamxml::ElementArray()) {
        const std::string where = _line(group);
        auto events = Tamxml::find_elements(group, Tamxml::XPath("./Event[@enabled='yes']"));
        if (!events || events->empty()) {
            findings.warning("the event group at " + where +
                             " has no enabled event: it never sends mail");
        }
        for (const auto& event : events ? *events : Tamxml::ElementArray()) {
            auto id = event->attr("id");
            unsigned long number = 0;
            try {
                if (!id)
                    continue;
                number = id->value_cast<unsigned long>();
            } catch (const Tamtk::Exception&) {
                continue;  // the channel refuses it
            }
            auto first = owner.insert(std::make_pair(number, where));
            if (!first.second) {
                findings.warning("event id " + std::to_string(number) + " is enabled again at " +
                                 _line(event) + ": only the event group at " + first.first->second +
                                 " sends mail for it");
            }
        }
        auto message = Tamxml::find_first_element(group, Tamxml::XPath("./Message"));
        bool anyLoads = false;
        for (const _Token& token : tokens) {
            anyLoads = anyLoads || token.loads;
        }
        // Without a token that loads the channel reads no group at all.
        if (message && message->text() && anyLoads) {
            _lintTemplate(message->text()->str(), where, tokens, findings);
        }
    }
}

}  // namespace

void lintConfiguration(const boost::shared_ptr<const Tamxml::Document>& config,
                       CheckFindings& findings) {
    auto defaults = Tamxml::find_elements(config, Tamxml::XPath("/Channel/Default"));
    if (!defaults || defaults->empty()) {
        return;  // the channel refuses it, and has said so
    }
    const std::vector<_Token> tokens = _lintTokens(defaults->front(), findings);
    _lintGroups(config, tokens, findings);
}

}  // namespace internal
}  // namespace Osk
