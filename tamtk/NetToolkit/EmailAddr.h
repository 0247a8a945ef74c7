#pragma once

// One mailbox address (local part, domain, optional source route), checked
// when it is made so that a bad address fails at configuration time with a
// message that shows the offending text.

#include <array>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "Toolkit/Exceptions.h"
#include "Toolkit/Export.h"

namespace Tamnet {

namespace internal {
namespace emailaddr {

// Category of each byte value in an address:
//   1 control, 2 letter-digit ("A-Za-z0-9-."), 3 bracket-comma (",[]"),
//   4 atom sign ("#$&+=_"), 5 other sign ("!%'*/?^`{|}~"),
//   6 special (tab, space, "():;<>@" and every byte from 0x80), 7 quote, 8 escape.
enum Category : std::uint32_t {
    Control = 1,
    LetterDigit = 2,
    BracketComma = 3,
    AtomSign = 4,
    OtherSign = 5,
    Special = 6,
    Quote = 7,
    Escape = 8
};
extern TAMTK_API const std::array<std::uint32_t, 256> charCategory;

// The characters of a dotted IPv4 literal.
extern TAMTK_API const char ipv4LiteralChars[];
// The characters that the weak domain rules refuse.
extern TAMTK_API const char weakDomainRefused[];

}  // namespace emailaddr
}  // namespace internal

class TAMTK_API EmailAddr {
public:
    // How far a domain that is not an address literal is checked after the
    // common checks (length, leading dot, double dot):
    //   0 nothing more; 1 the weak rules (no "/$[]{}\^|?*", no control
    //   characters); any other value: only letters, digits, "-" and "." (so 2
    //   and 3 mean the same); 4 adds that every label starts with a letter.
    typedef unsigned DomainCheck;
    static constexpr DomainCheck NoDomainCheck = 0;
    static constexpr DomainCheck WeakDomainCheck = 1;
    static constexpr DomainCheck LetterDigitDomainCheck = 2;
    static constexpr DomainCheck StrictDomainCheck = 4;
    // The default is the letter-digit check: exactly the characters a domain
    // may hold in SMTP. The strict rule is not the default because SMTP
    // domains may start a label with a digit ("3com.com").
    static constexpr DomainCheck DefaultDomainCheck = LetterDigitDomainCheck;

    static constexpr std::uint32_t DefaultMaxDomain = 255;
    static constexpr std::uint32_t DefaultMaxLocal = 64;

    // No address (false in a boolean context).
    EmailAddr();
    // Parses "local@domain", "<local@domain>", "<@a,@b:local@domain>" or the
    // bare postmaster ("postmaster", "<postmaster>", any case). Blank text
    // gives an empty address. Raises EmailAddrException.
    EmailAddr(const std::string& text);  // NOLINT: addresses are written as text
    EmailAddr(const char* text);         // NOLINT
    // An address from its two parts, each verified with the default limits.
    EmailAddr(const std::string& local, const std::string& domain);
    EmailAddr(const std::string& text, std::uint32_t maxDomain, std::uint32_t maxLocal,
              DomainCheck check = DefaultDomainCheck);

    EmailAddr(const EmailAddr&) = default;
    EmailAddr(EmailAddr&&) noexcept = default;
    EmailAddr& operator=(const EmailAddr&) = default;
    EmailAddr& operator=(EmailAddr&&) noexcept = default;
    // Parses again, keeping this address's limits.
    EmailAddr& operator=(const std::string& text);
    EmailAddr& operator=(const char* text);

    // Back to no address; the limits stay.
    void clear();

    // Each part is verified before it is stored (domains with the default
    // check); a change takes the address out of the postmaster form.
    void setLocalPart(const std::string& local);
    void setDomain(const std::string& domain);
    // Appends "@a" or "@a,@b" to the source route.
    void addSourceRoute(const std::string& route);

    const std::string& localPart() const noexcept { return local_; }
    const std::string& domain() const noexcept { return domain_; }
    const std::string& sourceRoute() const noexcept { return route_; }
    std::uint32_t maxDomain() const noexcept { return maxDomain_; }
    std::uint32_t maxLocal() const noexcept { return maxLocal_; }
    bool isPostmaster() const noexcept { return postmaster_; }

    // "<local@domain>", "<@a,@b:local@domain>", "<postmaster>"; "<>" when empty.
    // With `normaliseQuotes` the local part is written in its canonical
    // quoting (see normaliseQuoting); the address itself is not changed.
    std::string asRFC821String(bool normaliseQuotes = false) const;
    // "local@domain" ("postmaster" for the postmaster); no route, no brackets.
    std::string asPlainString(bool normaliseQuotes = false) const;

    bool isAddressLiteral() const noexcept;
    explicit operator bool() const noexcept;

    // A bare "postmaster" (any case, no domain, no route) becomes the shared
    // postmaster address.
    void checkForPostmaster();
    static const EmailAddr& postmaster();

    // Rewrites the local part in its canonical quoting: bare when it is a
    // dot-string (atoms joined by single dots), otherwise one quoted string in
    // which only '"' and '\' are escaped. With `alwaysQuote` the quoted form
    // is used even for a dot-string. Raises "Missing quote in local part." for
    // an opening quote without its closing one.
    void normaliseQuoting(bool alwaysQuote = false);

    // Cuts `text` (no source route allowed) at its last "@" and verifies both parts.
    static void split(const std::string& text, std::string& local, std::string& domain,
                      std::uint32_t maxDomain = DefaultMaxDomain,
                      std::uint32_t maxLocal = DefaultMaxLocal,
                      DomainCheck check = DefaultDomainCheck);
    // The same, with an optional leading source route "@a,@b:" (stored without ":").
    static void split(const std::string& text, std::string& route, std::string& local,
                      std::string& domain, std::uint32_t maxDomain = DefaultMaxDomain,
                      std::uint32_t maxLocal = DefaultMaxLocal,
                      DomainCheck check = DefaultDomainCheck);

    static void verifyLocal(const std::string& local, std::uint32_t maxLocal = DefaultMaxLocal);
    static void verifyDomain(const std::string& domain, std::uint32_t maxDomain = DefaultMaxDomain,
                             DomainCheck check = DefaultDomainCheck);
    // A route "@a,@b" (without its ":"); each domain is verified like a mail domain.
    static void verifySourceRoute(const std::string& route,
                                  std::uint32_t maxDomain = DefaultMaxDomain,
                                  DomainCheck check = DefaultDomainCheck);
    // Strips surrounding blanks and the angle brackets of the RFC 821 form.
    // Blank text gives ""; "<>" and other bracketed blanks raise "Blank address".
    static std::string normalise(const std::string& text);

    // Two postmaster addresses are equal whatever their limits. Otherwise
    // route, local part and domain must be equal byte for byte (case counts,
    // in the domain as well) and so must both limits.
    friend TAMTK_API bool operator==(const EmailAddr& a, const EmailAddr& b) noexcept;
    // A strict weak order whose equivalence is operator==.
    friend TAMTK_API bool operator<(const EmailAddr& a, const EmailAddr& b) noexcept;

private:
    void parse(const std::string& text, DomainCheck check);

    std::string local_;
    std::string domain_;
    std::string route_;
    // Set while the local part is known to be in canonical quoting, so that
    // writing it normalised needs no copy.
    bool quotingNormalised_;
    bool postmaster_;
    std::uint32_t maxDomain_;
    std::uint32_t maxLocal_;
};

inline bool operator!=(const EmailAddr& a, const EmailAddr& b) noexcept {
    return !(a == b);
}
// Comparing with text parses the text first, with the limits of the address,
// so an address equals the text it was made from. Invalid text raises.
TAMTK_API bool operator==(const EmailAddr& a, const std::string& b);
TAMTK_API bool operator==(const std::string& a, const EmailAddr& b);
inline bool operator!=(const EmailAddr& a, const std::string& b) {
    return !(a == b);
}
inline bool operator!=(const std::string& a, const EmailAddr& b) {
    return !(a == b);
}
inline bool operator==(const EmailAddr& a, const char* b) {
    return a == std::string(b);
}
inline bool operator==(const char* a, const EmailAddr& b) {
    return std::string(a) == b;
}
inline bool operator!=(const EmailAddr& a, const char* b) {
    return !(a == b);
}
inline bool operator!=(const char* a, const EmailAddr& b) {
    return !(a == b);
}

// The RFC 821 form.
TAMTK_API std::ostream& operator<<(std::ostream& out, const EmailAddr& addr);

}  // namespace Tamnet
