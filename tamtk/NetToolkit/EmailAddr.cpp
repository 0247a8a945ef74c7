#include "NetToolkit/EmailAddr.h"

#include <cctype>
#include <cstring>
#include <ostream>
#include <tuple>

#include "NetToolkit/IP.h"

// Every failure names its reason, shows the text it refers to and, where one
// character is at fault, its zero-based position. Macros rather than helper
// functions so that the location is that of the checking function.
#define TAMNET_EMAIL_FAIL(reason, data)                \
    TAMTK_THROW(::Tamnet::EmailAddrException, _source, \
                reason << " Offending data was [[ " << (data) << " ]]")
#define TAMNET_EMAIL_FAIL_AT(reason, data, position)          \
    TAMTK_THROW(::Tamnet::EmailAddrException, _source,        \
                reason << " Offending data was [[ " << (data) \
                       << " ]] Relevant position in data is " << (position))

namespace Tamnet {

namespace internal {
namespace emailaddr {

namespace {

constexpr std::array<std::uint32_t, 256> _makeCategories() {
    std::array<std::uint32_t, 256> table{};
    auto mark = [&table](const char* chars, std::uint32_t category) {
        for (; *chars; ++chars) {
            table[static_cast<unsigned char>(*chars)] = category;
        }
    };
    for (unsigned c = 0; c < 256; ++c) {
        table[c] = (c < 0x20 || c == 0x7F) ? std::uint32_t(Control)
                   : c >= 0x80             ? std::uint32_t(Special)
                                           : 0;
    }
    mark("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-.", LetterDigit);
    mark(",[]", BracketComma);
    mark("#$&+=_", AtomSign);
    mark("!%'*/?^`{|}~", OtherSign);
    mark("\t ():;<>@", Special);
    mark("\"", Quote);
    mark("\\", Escape);
    return table;
}

constexpr bool _everyByteCategorised(const std::array<std::uint32_t, 256>& table) {
    for (std::uint32_t category : table) {
        if (category == 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

const std::array<std::uint32_t, 256> charCategory = _makeCategories();
static_assert(_everyByteCategorised(_makeCategories()), "a byte value has no category");

// The digit 0 is listed twice; harmless, and kept as the list has always read.
const char ipv4LiteralChars[] = "01234567890.";
const char weakDomainRefused[] = "/$[]{}\\^|?*";

}  // namespace emailaddr
}  // namespace internal

namespace {

using namespace internal::emailaddr;

const char* const _source = "NetToolkit/EmailAddr";
const char* const _blanks = " \t\r\n";

std::uint32_t _category(char c) noexcept {
    return charCategory[static_cast<unsigned char>(c)];
}

bool _equalsNoCase(const std::string& text, const char* lower) noexcept {
    const std::size_t length = std::strlen(lower);
    if (text.size() != length) {
        return false;
    }
    for (std::size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const char folded = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        if (folded != lower[i]) {
            return false;
        }
    }
    return true;
}

// Tagged literals ("tag:text") are all refused: nothing downstream can route
// to an IPv6 or general address literal.
void _verifyNonIPv4AddressLiteral(const std::string& literal, const std::string& domain) {
    const std::string::size_type colon = literal.find(':');
    if (colon == std::string::npos) {
        TAMNET_EMAIL_FAIL("Literal does not follow RFC2821 par 4.3.1 specification", domain);
    }
    if (_equalsNoCase(literal.substr(0, colon), "ipv6")) {
        TAMNET_EMAIL_FAIL("Possible IPv6 literal identified, but cannot be supported", domain);
    }
    TAMNET_EMAIL_FAIL("Supplied literal not currently supported", domain);
}

// `literal` is the text between the brackets of `domain`.
void _verifyAddressLiteral(const std::string& literal, const std::string& domain) {
    if (literal.find_first_not_of(ipv4LiteralChars) == std::string::npos) {
        if (!IPv4Addr::is_valid(literal)) {
            TAMNET_EMAIL_FAIL("Invalid IPv4 literal address in domain", domain);
        }
        return;
    }
    _verifyNonIPv4AddressLiteral(literal, domain);
}

void _verifyWeakDomain(const std::string& domain) {
    const std::size_t refusedCount = sizeof weakDomainRefused - 1;
    for (std::size_t i = 0; i < domain.size(); ++i) {
        const char c = domain[i];
        if (std::memchr(weakDomainRefused, c, refusedCount) != nullptr ||
            std::iscntrl(static_cast<unsigned char>(c))) {
            TAMNET_EMAIL_FAIL_AT("Invalid domain name - bad characters found", domain, i);
        }
    }
}

// An empty last label (a trailing dot) has no first letter and is refused:
// a trailing dot is not valid in an SMTP domain.
void _verifyStrictDomain(const std::string& domain) {
    std::size_t label = 0;
    for (;;) {
        if (label >= domain.size() || !std::isalpha(static_cast<unsigned char>(domain[label]))) {
            TAMNET_EMAIL_FAIL_AT("Invalid domain name - first character of a subdomain not alpha",
                                 domain, label);
        }
        const std::string::size_type dot = domain.find('.', label);
        if (dot == std::string::npos) {
            return;
        }
        label = dot + 1;
    }
}

// A dot-string: atoms of atext joined by single dots. Exactly the local parts
// that need no quoting on the SMTP wire.
bool _isDotString(const std::string& text) noexcept {
    if (text.empty() || text.front() == '.' || text.back() == '.') {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        switch (_category(text[i])) {
            case LetterDigit:
                if (text[i] == '.' && text[i + 1] == '.') {
                    return false;
                }
                break;
            case AtomSign:
            case OtherSign:
                break;
            default:
                return false;
        }
    }
    return true;
}

// The characters a local part stands for, with its quotes and escapes taken
// away. Throws on an unbalanced quote.
std::string _unquotedContent(const std::string& local) {
    std::size_t begin = 0;
    std::size_t end = local.size();
    if (!local.empty() && local.front() == '"') {
        if (local.size() < 2 || local.back() != '"') {
            TAMNET_EMAIL_FAIL("Missing quote in local part.", local);
        }
        begin = 1;
        end = local.size() - 1;
    }
    std::string content;
    content.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) {
        char c = local[i];
        if (c == '\\') {
            if (i + 1 == end) {
                TAMNET_EMAIL_FAIL_AT("Attempt to escape illegal character in local part", local, i);
            }
            c = local[++i];
        } else if (c == '"') {
            TAMNET_EMAIL_FAIL_AT("Missing quote in local part.", local, i);
        }
        content += c;
    }
    return content;
}

std::string _quoted(const std::string& content) {
    std::string quoted;
    quoted.reserve(content.size() + 2);
    quoted += '"';
    for (char c : content) {
        if (c == '"' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

std::string _trimmed(const std::string& text) {
    const std::string::size_type first = text.find_first_not_of(_blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(_blanks) - first + 1);
}

}  // namespace

// ---- construction -------------------------------------------------------

EmailAddr::EmailAddr()
    : quotingNormalised_(false),
      postmaster_(false),
      maxDomain_(DefaultMaxDomain),
      maxLocal_(DefaultMaxLocal) {}

EmailAddr::EmailAddr(const std::string& text) : EmailAddr() {
    parse(text, DefaultDomainCheck);
}

EmailAddr::EmailAddr(const char* text) : EmailAddr(std::string(text ? text : "")) {}

EmailAddr::EmailAddr(const std::string& local, const std::string& domain) : EmailAddr() {
    setLocalPart(local);
    setDomain(domain);
}

EmailAddr::EmailAddr(const std::string& text, std::uint32_t maxDomain, std::uint32_t maxLocal,
                     DomainCheck check)
    : EmailAddr() {
    maxDomain_ = maxDomain;
    maxLocal_ = maxLocal;
    parse(text, check);
}

void EmailAddr::parse(const std::string& text, DomainCheck check) {
    const std::string normalised = normalise(text);
    if (normalised.empty()) {
        return;
    }
    // The bare postmaster needs no domain (every host must accept it); it is
    // made the postmaster address at once so that it counts as an address.
    if (_equalsNoCase(normalised, "postmaster")) {
        local_ = "postmaster";
        postmaster_ = true;
        quotingNormalised_ = true;
        return;
    }
    split(normalised, route_, local_, domain_, maxDomain_, maxLocal_, check);
    normaliseQuoting();
}

EmailAddr& EmailAddr::operator=(const std::string& text) {
    *this = EmailAddr(text, maxDomain_, maxLocal_);
    return *this;
}

EmailAddr& EmailAddr::operator=(const char* text) {
    return *this = std::string(text ? text : "");
}

void EmailAddr::clear() {
    local_.clear();
    domain_.clear();
    route_.clear();
    quotingNormalised_ = false;
    postmaster_ = false;
}

void EmailAddr::setLocalPart(const std::string& local) {
    verifyLocal(local, maxLocal_);
    // verifyLocal lets a lone '"' pass (it opens and closes); the parser
    // refuses it when it normalises the quoting, and so must this: the
    // address could not be written and read back.
    _unquotedContent(local);
    local_ = local;
    quotingNormalised_ = false;
    postmaster_ = false;
}

void EmailAddr::setDomain(const std::string& domain) {
    verifyDomain(domain, maxDomain_);
    domain_ = domain;
    postmaster_ = false;
}

void EmailAddr::addSourceRoute(const std::string& route) {
    verifySourceRoute(route, maxDomain_);
    if (!route_.empty()) {
        route_ += ',';
    }
    route_ += route;
    postmaster_ = false;
}

// ---- text forms ----------------------------------------------------------

std::string EmailAddr::asRFC821String(bool normaliseQuotes) const {
    if (normaliseQuotes && !quotingNormalised_) {
        EmailAddr copy(*this);
        copy.normaliseQuoting();
        return copy.asRFC821String(false);
    }
    std::string text;
    text.reserve(route_.size() + local_.size() + domain_.size() + 4);
    text += '<';
    if (!route_.empty()) {
        text += route_;
        text += ':';
    }
    text += local_;
    if (!domain_.empty()) {
        text += '@';
        text += domain_;
    }
    text += '>';
    return text;
}

std::string EmailAddr::asPlainString(bool normaliseQuotes) const {
    if (normaliseQuotes && !quotingNormalised_) {
        EmailAddr copy(*this);
        copy.normaliseQuoting();
        return copy.asPlainString(false);
    }
    if (domain_.empty()) {
        return local_;
    }
    return local_ + '@' + domain_;
}

bool EmailAddr::isAddressLiteral() const noexcept {
    return !postmaster_ && !domain_.empty() && domain_.front() == '[' && domain_.back() == ']';
}

EmailAddr::operator bool() const noexcept {
    return postmaster_ || (!local_.empty() && !domain_.empty());
}

// ---- postmaster ----------------------------------------------------------

const EmailAddr& EmailAddr::postmaster() {
    static const EmailAddr shared("<postmaster>");
    return shared;
}

namespace {
// Made when the library loads, so no thread ever waits for its first use.
const EmailAddr& _startupPostmaster = EmailAddr::postmaster();
}  // namespace

void EmailAddr::checkForPostmaster() {
    postmaster_ = false;
    if (!route_.empty() || !domain_.empty()) {
        return;
    }
    if (_equalsNoCase(local_, "postmaster")) {
        *this = postmaster();
    }
}

// ---- quoting -------------------------------------------------------------

void EmailAddr::normaliseQuoting(bool alwaysQuote) {
    if (postmaster_ || local_.empty()) {
        quotingNormalised_ = !alwaysQuote;
        return;
    }
    const std::string content = _unquotedContent(local_);
    const bool bare = _isDotString(content);
    std::string canonical = (bare && !alwaysQuote) ? content : _quoted(content);
    // Quoting can lengthen the text; the stored form must still fit.
    verifyLocal(canonical, maxLocal_);
    local_.swap(canonical);
    quotingNormalised_ = !(bare && alwaysQuote);
}

// ---- checks --------------------------------------------------------------

void EmailAddr::verifyLocal(const std::string& local, std::uint32_t maxLocal) {
    if (local.empty() || local.size() > maxLocal) {
        TAMNET_EMAIL_FAIL("Invalid length for local part", local);
    }
    std::size_t begin = 0;
    std::size_t end = local.size();
    bool quoted = false;
    if (local.front() == '"') {
        if (local.back() != '"') {
            TAMNET_EMAIL_FAIL_AT("Missing quote in local part", local, local.size() - 1);
        }
        // A lone '"' both opens and closes here; normaliseQuoting refuses it.
        quoted = true;
        begin = 1;
        end = local.size() > 1 ? local.size() - 1 : 1;
    }
    for (std::size_t i = begin; i < end; ++i) {
        const std::uint32_t category = _category(local[i]);
        if (category == Escape) {
            if (i + 1 >= end || _category(local[i + 1]) == Control) {
                TAMNET_EMAIL_FAIL_AT("Attempt to escape illegal character in local part", local, i);
            }
            ++i;
            continue;
        }
        const bool forbidden = category == Control || category == Quote ||
                               (!quoted && (category == Special || category == BracketComma));
        if (forbidden) {
            TAMNET_EMAIL_FAIL_AT("Invalid character in local part", local, i);
        }
    }
}

void EmailAddr::verifyDomain(const std::string& domain, std::uint32_t maxDomain,
                             DomainCheck check) {
    if (domain.empty() || domain.size() > maxDomain) {
        TAMNET_EMAIL_FAIL("Invalid domain name length", domain);
    }
    if (domain.front() == '[') {
        if (domain.size() < 2 || domain.back() != ']') {
            TAMNET_EMAIL_FAIL("Missing bracket in literal IP address.", domain);
        }
        _verifyAddressLiteral(domain.substr(1, domain.size() - 2), domain);
        return;
    }
    if (domain.front() == '.') {
        TAMNET_EMAIL_FAIL_AT("Domain cannot start with '.'", domain, 0);
    }
    const std::string::size_type doubleDot = domain.find("..");
    if (doubleDot != std::string::npos) {
        TAMNET_EMAIL_FAIL_AT("double-dot found in domain name", domain, doubleDot);
    }
    if (check == NoDomainCheck) {
        return;
    }
    if (check == WeakDomainCheck) {
        _verifyWeakDomain(domain);
        return;
    }
    for (std::size_t i = 0; i < domain.size(); ++i) {
        if (_category(domain[i]) != LetterDigit) {
            TAMNET_EMAIL_FAIL_AT("Invalid characters in domain name", domain, i);
        }
    }
    if (check == StrictDomainCheck) {
        _verifyStrictDomain(domain);
    }
}

void EmailAddr::verifySourceRoute(const std::string& route, std::uint32_t maxDomain,
                                  DomainCheck check) {
    if (route.empty()) {
        TAMNET_EMAIL_FAIL("Incomplete source route", route);
    }
    std::size_t start = 0;
    for (;;) {
        const std::string::size_type comma = route.find(',', start);
        const std::size_t end = comma == std::string::npos ? route.size() : comma;
        if (end - start < 2 || route[start] != '@') {
            TAMNET_EMAIL_FAIL_AT("Incomplete source route", route, start);
        }
        verifyDomain(route.substr(start + 1, end - start - 1), maxDomain, check);
        if (comma == std::string::npos) {
            return;
        }
        start = comma + 1;
    }
}

void EmailAddr::split(const std::string& text, std::string& local, std::string& domain,
                      std::uint32_t maxDomain, std::uint32_t maxLocal, DomainCheck check) {
    if (!text.empty() && text.front() == '@' && text.find(':') != std::string::npos) {
        TAMNET_EMAIL_FAIL_AT("Unexpected source route", text, 0);
    }
    const std::string::size_type at = text.rfind('@');
    if (at == std::string::npos || at == 0) {
        TAMNET_EMAIL_FAIL("Missing @ symbol or no local part", text);
    }
    if (at + 1 == text.size()) {
        TAMNET_EMAIL_FAIL_AT("Domain name is zero length", text, at);
    }
    std::string localPart = text.substr(0, at);
    std::string domainPart = text.substr(at + 1);
    verifyLocal(localPart, maxLocal);
    verifyDomain(domainPart, maxDomain, check);
    local.swap(localPart);
    domain.swap(domainPart);
}

void EmailAddr::split(const std::string& text, std::string& route, std::string& local,
                      std::string& domain, std::uint32_t maxDomain, std::uint32_t maxLocal,
                      DomainCheck check) {
    std::string routePart;
    std::string mailbox;
    if (!text.empty() && text.front() == '@') {
        const std::string::size_type colon = text.find(':');
        if (colon == std::string::npos) {
            TAMNET_EMAIL_FAIL("Missing colon in sourceroute", text);
        }
        routePart = text.substr(0, colon);
        verifySourceRoute(routePart, maxDomain, check);
        mailbox = text.substr(colon + 1);
    } else {
        mailbox = text;
    }
    split(mailbox, local, domain, maxDomain, maxLocal, check);
    route.swap(routePart);
}

std::string EmailAddr::normalise(const std::string& text) {
    std::string trimmed = _trimmed(text);
    if (trimmed.empty() || trimmed.front() != '<') {
        return trimmed;
    }
    if (trimmed.size() < 2 || trimmed.back() != '>') {
        TAMNET_EMAIL_FAIL("Missing terminating angle bracket", text);
    }
    // Blanks inside the brackets are not part of the RFC 821 form and are
    // left for the checks to refuse, unless there is nothing else.
    std::string inner = trimmed.substr(1, trimmed.size() - 2);
    if (inner.find_first_not_of(_blanks) == std::string::npos) {
        TAMNET_EMAIL_FAIL("Blank address", text);
    }
    return inner;
}

// ---- comparison ----------------------------------------------------------

bool operator==(const EmailAddr& a, const EmailAddr& b) noexcept {
    if (a.postmaster_ || b.postmaster_) {
        return a.postmaster_ && b.postmaster_;
    }
    return a.local_ == b.local_ && a.domain_ == b.domain_ && a.route_ == b.route_ &&
           a.maxDomain_ == b.maxDomain_ && a.maxLocal_ == b.maxLocal_;
}

bool operator<(const EmailAddr& a, const EmailAddr& b) noexcept {
    // Postmasters first, all equivalent to one another.
    if (a.postmaster_ || b.postmaster_) {
        return a.postmaster_ && !b.postmaster_;
    }
    return std::tie(a.local_, a.domain_, a.route_, a.maxDomain_, a.maxLocal_) <
           std::tie(b.local_, b.domain_, b.route_, b.maxDomain_, b.maxLocal_);
}

bool operator==(const EmailAddr& a, const std::string& b) {
    return a == EmailAddr(b, a.maxDomain(), a.maxLocal());
}

bool operator==(const std::string& a, const EmailAddr& b) {
    return b == a;
}

std::ostream& operator<<(std::ostream& out, const EmailAddr& addr) {
    return out << addr.asRFC821String(false);
}

}  // namespace Tamnet
