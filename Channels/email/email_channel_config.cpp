// Reading the defaults section and the extra headers of the configuration.

#include <cstring>

#include "Channels/email/config_fault.h"
#include "Channels/email/email_channel.h"

namespace Osk {

namespace {

// A charset name as MIME registers them: printable ASCII without blanks and
// without the characters that delimit header parameters and encoded words.
bool _is_charset_token(const Tamtk::Utf8Array& name) {
    static const char* const specials = "()<>@,;:\\\"/[]?=";
    for (const char* p = name.data(); p != name.data() + name.length(); ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c <= 0x20 || c >= 0x7F || std::strchr(specials, c) != nullptr) {
            return false;
        }
    }
    return true;
}

// A header field name: printable ASCII without blanks and without ":". The
// name is written into the mail as it stands, so anything else could break
// or add header lines.
bool _is_field_name(const std::string& name) {
    if (name.empty()) {
        return false;
    }
    for (const char ch : name) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c <= 0x20 || c >= 0x7F || c == ':') {
            return false;
        }
    }
    return true;
}

}  // namespace

bool email_channel::do_configure(const ChannelCfg& cfg) {
    boost::shared_ptr<const std::vector<boost::shared_ptr<const Tamxml::Element>>> p =
        Tamxml::find_elements(cfg.document, Tamxml::XPath("/Channel/Default"));
    if (!(p && !p->empty())) {
        EMAIL_CFG_FAULT("p && !p->empty()", 449);
    }
    boost::shared_ptr<const Tamxml::Element> defaults = p->front();
    load_defaults(defaults);
    get_charset(defaults);
    get_limits(defaults);

    HeaderMap defaultHeaders;
    populate_extra_headers(defaults, "ExtraHeaders/*", defaultHeaders);

    if (!get_tokens(defaults)) {
        // A channel without tokens stays unconfigured for delivery: groups
        // and agent are deliberately not read.
        report_error(Tamlog::sev::warning, "Error reading tokens during configuration");
        return false;
    }
    get_event_group(cfg, defaultHeaders);
    load_email_agent(cfg);
    return true;
}

void email_channel::load_defaults(boost::shared_ptr<const Tamxml::Element> defaults) {
    auto pRecipientList = Tamxml::find_elements(defaults, Tamxml::XPath("RecipientList/*"));
    if (!pRecipientList) {
        EMAIL_CFG_FAULT("pRecipientList", 396);
    }
    for (const auto& recipient : *pRecipientList) {
        boost::shared_ptr<const Tamxml::Attr> value = recipient->attr("value");
        // A recipient without an address is a broken list, not an entry to skip.
        if (!value) {
            EMAIL_CFG_FAULT("pRecipientList", 396);
        }
        recipients_.push_back(Tamnet::EmailAddr(value->value_cast<std::string>()));
    }
    if (recipients_.empty()) {
        EMAIL_CFG_FAULT("Empty recipient list", 417);
    }

    boost::shared_ptr<const Tamxml::Element> pSender =
        Tamxml::find_first_element(defaults, Tamxml::XPath("Sender"));
    if (!pSender) {
        EMAIL_CFG_FAULT("pSender", 421);
    }
    boost::shared_ptr<const Tamxml::Attr> pSenderAttr = pSender->attr("name");
    if (!pSenderAttr) {
        EMAIL_CFG_FAULT("pSenderAttr", 423);
    }
    sender_name_ = *pSenderAttr->value();
    pSenderAttr = pSender->attr("email");
    if (!pSenderAttr) {
        EMAIL_CFG_FAULT("pSenderAttr", 427);
    }
    sender_ = pSenderAttr->value()->str();

    boost::shared_ptr<const Tamxml::Element> pSubject =
        Tamxml::find_first_element(defaults, Tamxml::XPath("Subject"));
    if (!pSubject) {
        EMAIL_CFG_FAULT("pSubject", 431);
    }
    boost::shared_ptr<const Tamxml::Attr> pSubjectAttr = pSubject->attr("value");
    if (!pSubjectAttr) {
        EMAIL_CFG_FAULT("pSubjectAttr", 433);
    }
    subject_ = *pSubjectAttr->value();
}

void email_channel::get_charset(boost::shared_ptr<const Tamxml::Element> defaults) {
    auto charsets = Tamxml::find_elements(defaults, Tamxml::XPath("Charset[@enabled='yes']"));
    if (!charsets) {
        return;
    }
    for (const auto& element : *charsets) {
        boost::shared_ptr<const Tamxml::Attr> localeAttr = element->attr("locale");
        const std::string wanted = localeAttr ? localeAttr->value()->str() : std::string();

        std::memset(locale_, 0, sizeof locale_);
        internal::_copy_env_locale("TAM_LANG", locale_, sizeof locale_ - 1);
        if (locale_[0] == '\0') {
            internal::_copy_env_locale("LANGUAGE", locale_, sizeof locale_ - 1);
        }

        // The configured locale is a case-sensitive prefix of the environment's.
        if (std::strncmp(wanted.c_str(), locale_, wanted.size()) != 0) {
            continue;
        }
        boost::shared_ptr<const Tamxml::Attr> pCharset = element->attr("charset");
        if (!pCharset) {
            EMAIL_CFG_FAULT("pCharset", 375);
        }
        boost::shared_ptr<const Tamtk::Utf8Array> pData = pCharset->value();
        if (!(pData && !pData->empty())) {
            EMAIL_CFG_FAULT("pData && !pData->empty()", 377);
        }
        // The name is written into the Content-Type header and into every
        // encoded word: only a MIME charset token may go there, never a line break.
        if (!_is_charset_token(*pData)) {
            throw ConfigException(
                Tamtk::ExceptionString("Invalid charset name [[ " + pData->str() + " ]]"),
                TAMTK_HERE("email_channel"));
        }
        charset_ = *pData;
        return;
    }
}

void email_channel::populate_extra_headers(boost::shared_ptr<const Tamxml::Element> context,
                                           const char* path, HeaderMap& headers) {
    auto found = Tamxml::find_elements(context, Tamxml::XPath(path));
    if (!found) {
        return;
    }
    for (const auto& element : *found) {
        boost::shared_ptr<const Tamxml::Attr> pName = element->attr("name");
        // A header without a name could never be written; refuse the configuration.
        TAMTK_ASSERT(pName, "email_channel");
        const std::string name = pName->value_cast<std::string>();
        if (!_is_field_name(name)) {
            throw ConfigException(Tamtk::ExceptionString("Invalid header name [[ " + name + " ]]"),
                                  TAMTK_HERE("email_channel"));
        }

        extra_headers record;
        if (boost::shared_ptr<const Tamxml::Attr> def = element->attr("default")) {
            record.default_ = def->value()->str();
        }
        if (boost::shared_ptr<const Tamxml::Attr> xpath = element->attr("xpath")) {
            record.xpath = Tamxml::XPath(xpath->value());
        }
        headers.insert(std::make_pair(name, record));
    }
}

void email_channel::merge_extra_headers(HeaderMap& group, const HeaderMap& defaults) {
    // The channel-wide definition replaces the group's own on a shared name.
    for (const auto& entry : defaults) {
        group[entry.first] = entry.second;
    }
}

}  // namespace Osk
