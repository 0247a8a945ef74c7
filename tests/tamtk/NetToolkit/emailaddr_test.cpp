#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "NetToolkit/EmailAddr.h"

using Tamnet::EmailAddr;
using Tamnet::EmailAddrException;

namespace {

const std::string L64(64, 'l');
const std::string L65(65, 'l');
// 255 characters of labels that are each valid on their own.
const std::string D255 = std::string(63, 'd') + "." + std::string(63, 'd') + "." +
                         std::string(63, 'd') + "." + std::string(63, 'd');
const std::string D256 = D255 + "d";

struct Invalid {
    const char* name;
    std::string text;
    EmailAddr::DomainCheck check;
    std::string reason;
    std::string data;
    long position;  // -1: the message names none
    std::uint32_t maxDomain = EmailAddr::DefaultMaxDomain;
    std::uint32_t maxLocal = EmailAddr::DefaultMaxLocal;
};

std::string expectedMessage(const Invalid& row) {
    std::string text = row.reason + " Offending data was [[ " + row.data + " ]]";
    if (row.position >= 0) {
        text += " Relevant position in data is " + std::to_string(row.position);
    }
    return text;
}

const std::vector<Invalid>& invalidAddresses() {
    const EmailAddr::DomainCheck dflt = EmailAddr::DefaultDomainCheck;
    static const std::vector<Invalid> rows = {
        // local part
        {"local65", L65 + "@b", dflt, "Invalid length for local part", L65, -1},
        {"localOverOwnLimit", "abcd@b", dflt, "Invalid length for local part", "abcd", -1, 255, 3},
        {"unclosedQuote", "\"abc@b", dflt, "Missing quote in local part", "\"abc", 3},
        {"loneQuote", "\"@b", dflt, "Missing quote in local part.", "\"", -1},
        {"space", "a b@c", dflt, "Invalid character in local part", "a b", 1},
        {"bracket", "ab]@c", dflt, "Invalid character in local part", "ab]", 2},
        {"highByte", "caf\xC3\xA9@x", dflt, "Invalid character in local part", "caf\xC3\xA9", 3},
        {"quoteInQuoted", "\"a\"b\"@c", dflt, "Invalid character in local part", "\"a\"b\"", 2},
        {"controlInQuoted", "\"a\x01\"@c", dflt, "Invalid character in local part", "\"a\x01\"", 2},
        {"trailingEscape", "a\\@b", dflt, "Attempt to escape illegal character in local part",
         "a\\", 1},
        {"escapedControl", "a\\\x02@b", dflt, "Attempt to escape illegal character in local part",
         "a\\\x02", 1},
        {"escapedClosingQuote", "\"a\\\"@b", dflt,
         "Attempt to escape illegal character in local part", "\"a\\\"", 2},
        // Quoting a local part with an escape adds a character: 64 become 65.
        {"quotedFormTooLong", "\\ " + std::string(62, 'a') + "@b", dflt,
         "Invalid length for local part", "\" " + std::string(62, 'a') + "\"", -1},
        // domain
        {"domain256", "a@" + D256, dflt, "Invalid domain name length", D256, -1},
        {"domainOverOwnLimit", "a@abcdef", dflt, "Invalid domain name length", "abcdef", -1, 5},
        {"emptyDomain", "a@", dflt, "Domain name is zero length", "a@", 1},
        {"leadingDot", "a@.b", dflt, "Domain cannot start with '.'", ".b", 0},
        {"doubleDot", "a@b..c", dflt, "double-dot found in domain name", "b..c", 1},
        {"underscore", "a@b_c", dflt, "Invalid characters in domain name", "b_c", 1},
        {"checkThreeIsTwo", "a@b_c", 3, "Invalid characters in domain name", "b_c", 1},
        {"weakStar", "a@b*c", EmailAddr::WeakDomainCheck,
         "Invalid domain name - bad characters found", "b*c", 1},
        {"weakControl", "a@bc\x7f", EmailAddr::WeakDomainCheck,
         "Invalid domain name - bad characters found", "bc\x7f", 2},
        {"strictDigit", "a@b.3com", EmailAddr::StrictDomainCheck,
         "Invalid domain name - first character of a subdomain not alpha", "b.3com", 2},
        {"strictTrailingDot", "a@b.c.", EmailAddr::StrictDomainCheck,
         "Invalid domain name - first character of a subdomain not alpha", "b.c.", 4},
        // address literals
        {"missingBracket", "a@[1.2.3.4", dflt, "Missing bracket in literal IP address.", "[1.2.3.4",
         -1},
        {"shortIPv4", "a@[1.2.3]", dflt, "Invalid IPv4 literal address in domain", "[1.2.3]", -1},
        {"octetTooBig", "a@[1.2.3.256]", dflt, "Invalid IPv4 literal address in domain",
         "[1.2.3.256]", -1},
        {"emptyLiteral", "a@[]", dflt, "Invalid IPv4 literal address in domain", "[]", -1},
        {"untagged", "a@[foo]", dflt, "Literal does not follow RFC2821 par 4.3.1 specification",
         "[foo]", -1},
        {"ipv6", "a@[IPv6:::1]", dflt, "Possible IPv6 literal identified, but cannot be supported",
         "[IPv6:::1]", -1},
        {"ipv6LowerCase", "a@[ipv6:::1]", dflt,
         "Possible IPv6 literal identified, but cannot be supported", "[ipv6:::1]", -1},
        {"otherTag", "a@[x-tag:foo]", dflt, "Supplied literal not currently supported",
         "[x-tag:foo]", -1},
        // source routes and overall form
        {"routeWithoutColon", "@a,@b", dflt, "Missing colon in sourceroute", "@a,@b", -1},
        {"emptyRouteElement", "@a,:x@y", dflt, "Incomplete source route", "@a,", 3},
        {"routeElementWithoutAt", "@a,b:x@y", dflt, "Incomplete source route", "@a,b", 3},
        {"loneRouteAt", "@:x@y", dflt, "Incomplete source route", "@", 0},
        {"badRouteDomain", "@a_b:x@y", dflt, "Invalid characters in domain name", "a_b", 1},
        {"secondRoute", "@a:@b:x@y", dflt, "Unexpected source route", "@b:x@y", 0},
        {"noLocalAfterRoute", "@a:@b", dflt, "Missing @ symbol or no local part", "@b", -1},
        {"nothingAfterRoute", "<@a:>", dflt, "Missing @ symbol or no local part", "", -1},
        {"noAt", "abc", dflt, "Missing @ symbol or no local part", "abc", -1},
        {"unterminatedAngle", " <a@b ", dflt, "Missing terminating angle bracket", " <a@b ", -1},
        {"emptyAngle", "<>", dflt, "Blank address", "<>", -1},
        {"blankAngle", "< \t>", dflt, "Blank address", "< \t>", -1},
    };
    return rows;
}

TEST(EmailAddr, InvalidAddressesRaiseTheirMessage) {
    for (const Invalid& row : invalidAddresses()) {
        SCOPED_TRACE(row.name);
        try {
            EmailAddr addr(row.text, row.maxDomain, row.maxLocal, row.check);
            ADD_FAILURE() << "accepted as " << addr;
        } catch (const EmailAddrException& e) {
            EXPECT_EQ(e.what(), expectedMessage(row));
            EXPECT_STREQ(e.location().file.c_str(), "NetToolkit/EmailAddr");
        }
    }
}

struct Valid {
    std::string text;
    EmailAddr::DomainCheck check;
    std::string route;
    std::string local;
    std::string domain;
};

TEST(EmailAddr, ValidAddressesSplitIntoTheirParts) {
    const EmailAddr::DomainCheck dflt = EmailAddr::DefaultDomainCheck;
    const std::vector<Valid> rows = {
        {"user@example.com", dflt, "", "user", "example.com"},
        {"  <User@Example.COM>\t", dflt, "", "User", "Example.COM"},
        {"@r1.net,@r2.net:joe@example.com", dflt, "@r1.net,@r2.net", "joe", "example.com"},
        {L64 + "@b", dflt, "", L64, "b"},
        {"a@" + D255, dflt, "", "a", D255},
        {"a@[192.168.0.1]", dflt, "", "a", "[192.168.0.1]"},
        {"a!#$%&'*+/=?^_`{|}~-z.q@x", dflt, "", "a!#$%&'*+/=?^_`{|}~-z.q", "x"},
        {"x@3com.com", dflt, "", "x", "3com.com"},
        {"x@b.c", EmailAddr::StrictDomainCheck, "", "x", "b.c"},
        {"x@b_c", EmailAddr::WeakDomainCheck, "", "x", "b_c"},
        {"x@b$c", EmailAddr::NoDomainCheck, "", "x", "b$c"},
        // Quoting is made canonical: bare for a dot-string, one quoted string otherwise.
        {"\"john\"@x", dflt, "", "john", "x"},
        {"\"a\\b\"@x", dflt, "", "ab", "x"},
        {"\"john smith\"@x", dflt, "", "\"john smith\"", "x"},
        {"john\\ smith@x", dflt, "", "\"john smith\"", "x"},
        {"a\\\"b@x", dflt, "", "\"a\\\"b\"", "x"},
        {"\"a@b\"@c", dflt, "", "\"a@b\"", "c"},
        {"\"\"@x", dflt, "", "\"\"", "x"},
        {"\"caf\xC3\xA9\"@x", dflt, "", "\"caf\xC3\xA9\"", "x"},
        // Dots are not refused in the local part, but only quoting makes them valid SMTP.
        {"a..b@x", dflt, "", "\"a..b\"", "x"},
        {".a@x", dflt, "", "\".a\"", "x"},
    };
    for (const Valid& row : rows) {
        SCOPED_TRACE(row.text);
        EmailAddr addr(row.text, 255, 64, row.check);
        EXPECT_EQ(addr.sourceRoute(), row.route);
        EXPECT_EQ(addr.localPart(), row.local);
        EXPECT_EQ(addr.domain(), row.domain);
        EXPECT_TRUE(static_cast<bool>(addr));
        EXPECT_FALSE(addr.isPostmaster());
        const std::string mailbox = row.local + "@" + row.domain;
        EXPECT_EQ(addr.asPlainString(false), mailbox);
        EXPECT_EQ(addr.asRFC821String(false),
                  "<" + (row.route.empty() ? "" : row.route + ":") + mailbox + ">");
        EXPECT_EQ(addr.isAddressLiteral(), row.domain.front() == '[');
        // The canonical form parses back to the same address.
        EXPECT_EQ(EmailAddr(addr.asRFC821String(false), 255, 64, row.check), addr);
    }
}

TEST(EmailAddr, PostmasterAndEmptyForms) {
    for (const char* text : {"<postmaster>", "POSTMASTER", " PostMaster\t", "<postMaster>"}) {
        const EmailAddr addr(text);
        EXPECT_TRUE(addr.isPostmaster()) << text;
        EXPECT_TRUE(static_cast<bool>(addr));
        EXPECT_EQ(addr.localPart() + "|" + addr.domain() + "|" + addr.asRFC821String(true) + "|" +
                      addr.asPlainString(false),
                  "postmaster||<postmaster>|postmaster");
        EXPECT_EQ(addr, EmailAddr::postmaster());
    }
    EXPECT_FALSE(EmailAddr("postmaster@example.com").isPostmaster());
    EXPECT_THROW(EmailAddr("postmasters"), EmailAddrException);

    EmailAddr bare("x@y", 100, 30);
    bare.clear();
    bare.setLocalPart("PostMaster");
    EXPECT_FALSE(static_cast<bool>(bare));
    bare.checkForPostmaster();
    EXPECT_TRUE(bare.isPostmaster());
    EXPECT_EQ(bare.maxDomain(), 255u) << "becomes a copy of the shared address";
    EmailAddr withDomain("postmaster@y");
    withDomain.checkForPostmaster();
    EXPECT_FALSE(withDomain.isPostmaster());
    EmailAddr withRoute;
    withRoute.setLocalPart("postmaster");
    withRoute.addSourceRoute("@relay");
    withRoute.checkForPostmaster();
    EXPECT_FALSE(withRoute.isPostmaster());

    for (const char* text : {"", "  \t "}) {
        const EmailAddr addr(text);
        EXPECT_FALSE(static_cast<bool>(addr));
        EXPECT_EQ(addr.asRFC821String(false), "<>");
        EXPECT_EQ(addr.asPlainString(false), "");
        EXPECT_EQ(addr, EmailAddr());
    }
}

TEST(EmailAddr, Comparison) {
    // Case counts everywhere, the domain included; so do the limits.
    EXPECT_NE(EmailAddr("a@Mailhost"), EmailAddr("a@mailhost"));
    EXPECT_NE(EmailAddr("A@mailhost"), EmailAddr("a@mailhost"));
    EXPECT_EQ(EmailAddr("<a@mailhost>"), EmailAddr(" a@mailhost"));
    EXPECT_NE(EmailAddr("@r:a@b"), EmailAddr("a@b"));
    EXPECT_NE(EmailAddr("a@b"), EmailAddr("a@b", 255, 63));
    EXPECT_NE(EmailAddr("a@b"), EmailAddr("a@b", 254, 64));
    EXPECT_EQ(EmailAddr("a@b", 100, 10), EmailAddr("a@b", 100, 10, EmailAddr::WeakDomainCheck));
    EXPECT_EQ(EmailAddr("POSTMASTER", 10, 20), EmailAddr("<postmaster>"));
    // Text is parsed with the address's limits, so an address equals its text.
    EXPECT_TRUE(EmailAddr("a@b", 100, 10) == "<a@b>");
    EXPECT_TRUE(std::string("a@B") != EmailAddr("a@b"));
    EXPECT_TRUE(EmailAddr("\"a\"@b") == "a@b");
    EXPECT_THROW((void)(EmailAddr("a@b") == "a@"), EmailAddrException);

    // operator< agrees with operator== when used by a set.
    const std::vector<EmailAddr> all = {EmailAddr("a@b"),        EmailAddr("<a@b>"),
                                        EmailAddr("a@B"),        EmailAddr("a@b", 9, 9),
                                        EmailAddr("postmaster"), EmailAddr("<POSTMASTER>", 1, 1),
                                        EmailAddr("@r:a@b"),     EmailAddr(),
                                        EmailAddr("b@a")};
    EXPECT_EQ(std::set<EmailAddr>(all.begin(), all.end()).size(), 7u);
    for (const EmailAddr& x : all) {
        for (const EmailAddr& y : all) {
            EXPECT_EQ(x == y, !(x < y) && !(y < x)) << x << " " << y;
        }
    }
}

// Every way of changing an address checks the change, and a refused one changes nothing.
TEST(EmailAddr, ChangesAreVerifiedAndRefusalsChangeNothing) {
    EmailAddr addr("a@b", 100, 10);
    addr = "c@d";
    EXPECT_EQ(addr.maxDomain(), 100u);
    EXPECT_THROW(addr = std::string(11, 'x') + "@d", EmailAddrException);
    EXPECT_THROW(addr.setLocalPart("a b"), EmailAddrException);
    // A lone quote is refused as the parser refuses it (it could not be read back).
    EXPECT_THROW(addr.setLocalPart("\""), EmailAddrException);
    EXPECT_THROW(EmailAddr("\"", "example.com"), EmailAddrException);
    EXPECT_THROW(addr.setDomain("a..b"), EmailAddrException);
    EXPECT_THROW(addr.addSourceRoute("relay"), EmailAddrException);
    EXPECT_EQ(addr.asRFC821String(false), "<c@d>");
    addr.addSourceRoute("@r1");
    addr.addSourceRoute("@r2,@r3");
    EXPECT_EQ(addr.asRFC821String(false), "<@r1,@r2,@r3:c@d>");
    EXPECT_EQ(addr.asPlainString(false), "c@d");

    EmailAddr quoted("x", "y");
    quoted.setLocalPart("\"abc\"");
    EXPECT_EQ(quoted.asRFC821String(false), "<\"abc\"@y>");
    EXPECT_EQ(quoted.asRFC821String(true), "<abc@y>");
    quoted.normaliseQuoting(true);
    EXPECT_EQ(quoted.localPart(), "\"abc\"") << "writing and trial runs change nothing";
    EXPECT_EQ(quoted.asPlainString(true), "abc@y");
    quoted.normaliseQuoting();
    EXPECT_EQ(quoted.localPart(), "abc");
}

TEST(EmailAddr, StaticSplitAndNormalise) {
    std::string route, local, domain;
    EmailAddr::split("@a,@b:c@d", route, local, domain);
    EXPECT_EQ(route + "|" + local + "|" + domain, "@a,@b|c|d");
    EmailAddr::split("\"x@y\"@z", local, domain);
    EXPECT_EQ(local + "|" + domain, "\"x@y\"|z");
    EXPECT_THROW(EmailAddr::split("@a:c@d", local, domain), EmailAddrException);
    EXPECT_THROW(EmailAddr::split("@d", local, domain), EmailAddrException);
    EXPECT_EQ(local, "\"x@y\"") << "a failed split leaves its outputs alone";

    EXPECT_EQ(EmailAddr::normalise(" \t<a@b>\r\n"), "a@b");
    EXPECT_EQ(EmailAddr::normalise("a@b"), "a@b");
    EXPECT_EQ(EmailAddr::normalise("< a@b>"), " a@b") << "blanks inside are left for the checks";
    EXPECT_EQ(EmailAddr::normalise(" "), "");
}

}  // namespace
