#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "NetToolkit/EmailAddr.h"

using Tamnet::EmailAddr;
using Tamnet::EmailAddrException;

namespace {

const EmailAddr::DomainCheck dflt = EmailAddr::DefaultDomainCheck;
const EmailAddr::DomainCheck weak = EmailAddr::WeakDomainCheck;
const EmailAddr::DomainCheck strict = EmailAddr::StrictDomainCheck;
const std::string L64(64, 'l');
const std::string L65(65, 'l');
// 255 characters of labels that are each valid on their own.
const std::string D255 = std::string(63, 'd') + "." + std::string(63, 'd') + "." +
                         std::string(63, 'd') + "." + std::string(63, 'd');
const std::string D256 = D255 + "d";

const std::string localLength = "Invalid length for local part";
const std::string localChar = "Invalid character in local part";
const std::string badEscape = "Attempt to escape illegal character in local part";
const std::string domainChars = "Invalid characters in domain name";
const std::string weakChars = "Invalid domain name - bad characters found";
const std::string notAlpha = "Invalid domain name - first character of a subdomain not alpha";
const std::string badIPv4 = "Invalid IPv4 literal address in domain";
const std::string ipv6 = "Possible IPv6 literal identified, but cannot be supported";
const std::string route = "Incomplete source route";
const std::string noAt = "Missing @ symbol or no local part";

struct Invalid {
    std::string text;
    std::string reason;
    std::string data;
    long position;  // -1: the message names none
    EmailAddr::DomainCheck check = dflt;
    std::uint32_t maxDomain = EmailAddr::DefaultMaxDomain;
    std::uint32_t maxLocal = EmailAddr::DefaultMaxLocal;
};

TEST(EmailAddr, InvalidAddressesRaiseTheirMessage) {
    const std::vector<Invalid> rows = {
        {L65 + "@b", localLength, L65, -1},
        {"abcd@b", localLength, "abcd", -1, dflt, 255, 3},
        // Quoting a local part with an escape adds a character: 64 become 65.
        {"\\ " + std::string(62, 'a') + "@b", localLength, "\" " + std::string(62, 'a') + "\"", -1},
        {"\"abc@b", "Missing quote in local part", "\"abc", 3},
        {"\"@b", "Missing quote in local part.", "\"", -1},
        {"a b@c", localChar, "a b", 1},
        {"caf\xC3\xA9@x", localChar, "caf\xC3\xA9", 3},
        {"\"a\"b\"@c", localChar, "\"a\"b\"", 2},
        {"\"a\x01\"@c", localChar, "\"a\x01\"", 2},
        {"a\\@b", badEscape, "a\\", 1},
        {"a\\\x02@b", badEscape, "a\\\x02", 1},
        {"\"a\\\"@b", badEscape, "\"a\\\"", 2},
        {"a@" + D256, "Invalid domain name length", D256, -1},
        {"a@abcdef", "Invalid domain name length", "abcdef", -1, dflt, 5},
        {"a@", "Domain name is zero length", "a@", 1},
        {"a@.b", "Domain cannot start with '.'", ".b", 0},
        {"a@b..c", "double-dot found in domain name", "b..c", 1},
        {"a@b_c", domainChars, "b_c", 1},
        {"a@b_c", domainChars, "b_c", 1, 3},  // an unknown check is the default one
        {"a@b*c", weakChars, "b*c", 1, weak},
        {"a@bc\x7f", weakChars, "bc\x7f", 2, weak},
        {"a@b.3com", notAlpha, "b.3com", 2, strict},
        {"a@b.c.", notAlpha, "b.c.", 4, strict},
        {"a@[1.2.3.4", "Missing bracket in literal IP address.", "[1.2.3.4", -1},
        {"a@[1.2.3]", badIPv4, "[1.2.3]", -1},
        {"a@[1.2.3.256]", badIPv4, "[1.2.3.256]", -1},
        {"a@[]", badIPv4, "[]", -1},
        {"a@[foo]", "Literal does not follow RFC2821 par 4.3.1 specification", "[foo]", -1},
        {"a@[IPv6:::1]", ipv6, "[IPv6:::1]", -1},
        {"a@[ipv6:::1]", ipv6, "[ipv6:::1]", -1},
        {"a@[x-tag:foo]", "Supplied literal not currently supported", "[x-tag:foo]", -1},
        {"@a,@b", "Missing colon in sourceroute", "@a,@b", -1},
        {"@a,:x@y", route, "@a,", 3},
        {"@a,b:x@y", route, "@a,b", 3},
        {"@:x@y", route, "@", 0},
        {"@a_b:x@y", domainChars, "a_b", 1},
        {"@a:@b:x@y", "Unexpected source route", "@b:x@y", 0},
        {"@a:@b", noAt, "@b", -1},
        {"<@a:>", noAt, "", -1},
        {"abc", noAt, "abc", -1},
        {" <a@b ", "Missing terminating angle bracket", " <a@b ", -1},
        {"<>", "Blank address", "<>", -1},
        {"< \t>", "Blank address", "< \t>", -1},
    };
    for (const Invalid& row : rows) {
        SCOPED_TRACE(row.text);
        std::string expected = row.reason + " Offending data was [[ " + row.data + " ]]";
        if (row.position >= 0) {
            expected += " Relevant position in data is " + std::to_string(row.position);
        }
        try {
            EmailAddr addr(row.text, row.maxDomain, row.maxLocal, row.check);
            ADD_FAILURE() << "accepted as " << addr;
        } catch (const EmailAddrException& e) {
            EXPECT_EQ(e.what(), expected);
            EXPECT_STREQ(e.location().file.c_str(), "NetToolkit/EmailAddr");
        }
    }
}

struct Valid {
    std::string text;
    std::string route;
    std::string local;
    std::string domain;
    EmailAddr::DomainCheck check = dflt;
};

TEST(EmailAddr, ValidAddressesSplitIntoTheirParts) {
    const std::vector<Valid> rows = {
        {"user@example.com", "", "user", "example.com"},
        {"  <User@Example.COM>\t", "", "User", "Example.COM"},
        {"@r1.net,@r2.net:joe@example.com", "@r1.net,@r2.net", "joe", "example.com"},
        {L64 + "@b", "", L64, "b"},
        {"a@" + D255, "", "a", D255},
        {"a@[192.168.0.1]", "", "a", "[192.168.0.1]"},
        {"a!#$%&'*+/=?^_`{|}~-z.q@x", "", "a!#$%&'*+/=?^_`{|}~-z.q", "x"},
        {"x@3com.com", "", "x", "3com.com"},
        {"x@b.c", "", "x", "b.c", strict},
        {"x@b_c", "", "x", "b_c", weak},
        {"x@b$c", "", "x", "b$c", EmailAddr::NoDomainCheck},
        // Quoting is made canonical: bare for a dot-string, one quoted string otherwise.
        {"\"john\"@x", "", "john", "x"},
        {"\"a\\b\"@x", "", "ab", "x"},
        {"\"john smith\"@x", "", "\"john smith\"", "x"},
        {"john\\ smith@x", "", "\"john smith\"", "x"},
        {"a\\\"b@x", "", "\"a\\\"b\"", "x"},
        {"\"a@b\"@c", "", "\"a@b\"", "c"},
        {"\"\"@x", "", "\"\"", "x"},
        {"\"caf\xC3\xA9\"@x", "", "\"caf\xC3\xA9\"", "x"},
        // Dots are not refused in the local part, but only quoting makes them valid SMTP.
        {"a..b@x", "", "\"a..b\"", "x"},
        {".a@x", "", "\".a\"", "x"},
    };
    for (const Valid& row : rows) {
        SCOPED_TRACE(row.text);
        EmailAddr addr(row.text, 255, 64, row.check);
        EXPECT_EQ(addr.sourceRoute() + "|" + addr.localPart() + "|" + addr.domain(),
                  row.route + "|" + row.local + "|" + row.domain);
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
    for (const char* text : {"<postmaster>", "POSTMASTER", " PostMaster\t"}) {
        const EmailAddr addr(text);
        EXPECT_TRUE(addr.isPostmaster()) << text;
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
    bare.addSourceRoute("@relay");
    bare.checkForPostmaster();
    EXPECT_FALSE(bare.isPostmaster()) << "not with a source route";

    for (const char* text : {"", "  \t "}) {
        const EmailAddr addr(text);
        EXPECT_FALSE(static_cast<bool>(addr));
        EXPECT_EQ(addr.asRFC821String(false) + "|" + addr.asPlainString(false), "<>|");
        EXPECT_EQ(addr, EmailAddr());
    }
}

TEST(EmailAddr, Comparison) {
    // Case counts everywhere, the domain included; so do the limits.
    EXPECT_EQ(EmailAddr("a@b", 100, 10), EmailAddr("a@b", 100, 10, EmailAddr::WeakDomainCheck));
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
                                        EmailAddr("b@a"),        EmailAddr("a@b", 254, 64)};
    EXPECT_EQ(std::set<EmailAddr>(all.begin(), all.end()).size(), 8u);
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

    EmailAddr quoted("x", "y");
    quoted.setLocalPart("\"abc\"");
    EXPECT_EQ(quoted.asRFC821String(false) + quoted.asRFC821String(true), "<\"abc\"@y><abc@y>");
    quoted.normaliseQuoting(true);
    EXPECT_EQ(quoted.localPart(), "\"abc\"") << "writing and trial runs change nothing";
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
    EXPECT_EQ(local, "\"x@y\"") << "a failed split leaves its outputs alone";

    EXPECT_EQ(EmailAddr::normalise(" \t<a@b>\r\n"), "a@b");
    EXPECT_EQ(EmailAddr::normalise("< a@b>"), " a@b") << "blanks inside are left for the checks";
    EXPECT_EQ(EmailAddr::normalise(" "), "");
}

}  // namespace
