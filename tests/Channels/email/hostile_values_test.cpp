// CR, LF and NUL in every value that reaches a mail, and control bytes in
// addresses, one row each: a value never adds a header line or breaks the
// mail's shape, and arrives whole (encoded) where it belongs.

#include <gtest/gtest.h>

#include "Channels/email/encode.h"
#include "hostile_support.h"

using namespace testing_support;

namespace {

// `value` as XML character data or attribute text, line breaks and tabs as
// character references so that the parser keeps them as they are.
std::string xmlText(const std::string& value) {
    std::string out;
    for (char c : value) {
        switch (c) {
            case '\r': out += "&#13;"; break;
            case '\n': out += "&#10;"; break;
            case '\t': out += "&#9;"; break;
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

const char* const kValues[] = {"a\rb", "a\nb", "a\r\nb", "a\n\nX-Injected: yes",
                               "a\r\nBcc: victim@example.com", "a\n\tfolded", "\r\n\r\n",
                               "Subject: second"};

}  // namespace

TEST(HostileValues, LineBreaksInEveryTemplatedValueStayInsideIt) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    enum Where { EventValue, Stylesheet, ConstantToken, HeaderDefault, Subject, SenderName };
    struct Row {
        const char* name;
        Where where;
    };
    const Row rows[] = {{"XPath value from the event (body and X-Detail)", EventValue},
                        {"stylesheet output", Stylesheet},
                        {"constant token", ConstantToken},
                        {"extra header default", HeaderDefault},
                        {"subject", Subject},
                        {"sender display name", SenderName}};
    for (const Row& row : rows) {
        for (const std::string value : kValues) {
            SCOPED_TRACE(std::string(row.name) + ": " + xmlText(value));
            std::string message = "Host %host%: %detail%";
            std::string tokens;
            std::string xml;
            std::string detail = "d";
            switch (row.where) {
                case EventValue: detail = value; break;
                case Stylesheet:
                    message = "%s%";
                    tokens = R"(<Token name="s"><xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
                        <xsl:output method="text"/><xsl:template match="/"><xsl:value-of select="/event/v"/></xsl:template>
                      </xsl:stylesheet></Token>)";
                    break;
                case ConstantToken:
                    message = "%c%";
                    tokens = "<Token name=\"c\" default=\"" + xmlText(value) + "\"/>";
                    break;
                default: break;
            }
            xml = hostileConfig(message, tokens);
            if (row.where == HeaderDefault) {
                xml = replaced(xml, R"(<Header name="X-Group" default="g1"/>)",
                               "<Header name=\"X-Group\" default=\"" + xmlText(value) + "\"/>");
            } else if (row.where == Subject) {
                xml = replaced(xml, R"(<Subject value="Alert"/>)",
                               "<Subject value=\"" + xmlText(value) + "\"/>");
            } else if (row.where == SenderName) {
                xml = replaced(xml, R"(name="Alerter")", "name=\"" + xmlText(value) + "\"");
            }
            ReportingChannel channel;
            ASSERT_TRUE(channel.do_configure(config(xml)));
            const Outcome outcome = deliverBetween(
                channel, "<event><host>h</host><detail>" + xmlText(detail) + "</detail><v>" +
                             xmlText(value) + "</v></event>");
            ASSERT_TRUE(outcome.sent);
            EXPECT_TRUE(outcome.reports.empty());
            const MailShape shape = readMail(outcome.mail, hostileHeaders(true));
            EXPECT_EQ(shape.problems, std::vector<std::string>()) << outcome.mail;
            switch (row.where) {
                case EventValue:
                    EXPECT_EQ(shape.body, "Host h: " + value);
                    EXPECT_EQ(decodeWords(shape.headers.at("X-Detail")), value);
                    break;
                case Stylesheet:
                case ConstantToken: EXPECT_EQ(shape.body, value); break;
                case HeaderDefault: EXPECT_EQ(decodeWords(shape.headers.at("X-Group")), value); break;
                case Subject: EXPECT_EQ(decodeWords(shape.headers.at("Subject")), value); break;
                case SenderName: {
                    const std::string from = shape.headers.at("From");
                    EXPECT_EQ(decodeWords(from.substr(0, from.rfind(' '))), value);
                    break;
                }
            }
        }
    }
}

TEST(HostileValues, NulCannotComeFromXmlAndIsEncodedWhenGivenDirectly) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    // XML has no NUL: a character reference to it is refused when read.
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(hostileConfig())));
    const Outcome outcome =
        deliverBetween(channel, "<event><host>h</host><detail>a&#0;b</detail></event>");
    EXPECT_NE(outcome.parseError.find("invalid xmlChar value 0"), std::string::npos)
        << outcome.parseError;
    EXPECT_FALSE(outcome.sent);

    // Given straight to the assembly, NUL in every text ends up encoded: the
    // mail stays one C string and every value arrives whole.
    const std::string nul("a\0b\r\n\0", 6);
    for (const char* charset : {"UTF-8", "ISO-8859-1"}) {
        SCOPED_TRACE(charset);
        const Tamtk::Utf8Array text(nul.data(), static_cast<unsigned>(nul.size()));
        const std::string mail = Osk::EmailChannel::buildEmail(
            charset, 0, text, Tamnet::EmailAddr("s@example.com"), {Tamnet::EmailAddr("r@example.com")},
            text, text, {{"X-Value", nul}});
        std::set<std::string> expected = standardHeaders();
        expected.insert("X-Value");
        const MailShape shape = readMail(mail, expected);
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(shape.body, nul);
        EXPECT_EQ(decodeWords(shape.headers.at("Subject")), nul);
        EXPECT_EQ(decodeWords(shape.headers.at("X-Value")), nul);
    }
}

TEST(HostileValues, ControlBytesInAddressesAreRefused) {
    // Every control byte at every position of an address: refused with the
    // address family's exception, or (a blank at either end) stripped; an
    // accepted address never writes a byte that could end a line or a string.
    const std::string address = "user@example.com";
    for (int b = 0; b < 0x20 || b == 0x7F; b = (b == 0x1F) ? 0x7F : b + 1) {
        for (std::size_t at = 0; at <= address.size(); ++at) {
            std::string text = address;
            text.insert(at, 1, static_cast<char>(b));
            SCOPED_TRACE("byte " + std::to_string(b) + " at " + std::to_string(at));
            try {
                const Tamnet::EmailAddr addr(text);
                EXPECT_TRUE(at == 0 || at == address.size()) << "only a blank at an end is stripped";
                EXPECT_EQ(addr.asRFC821String(false), "<" + address + ">");
            } catch (const Tamnet::EmailAddrException& e) {
                EXPECT_NE(std::string(e.what()).find("Offending data was"), std::string::npos) << e.what();
            }
        }
    }

    // In the configuration: a recipient or sender with a control byte stops
    // do_configure with a clear message (XML itself refuses most control
    // characters); a tab inside a quoted local part is a legal character and
    // keeps the mail's shape.
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    struct Row {
        const char* address;
        const char* refusal;
    };
    const Row rows[] = {{"us&#1;er@example.com", "invalid xmlChar value 1"},
                        {"user@exa&#10;mple.com", "Invalid characters in domain name"},
                        {"user&#13;@example.com", "Invalid character in local part"},
                        {"us&#127;er@example.com", "Invalid character in local part"},
                        {"user@example.com&#10;Bcc: x@y.org", "Offending data was"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.address);
        for (const std::string where : {R"(<Recipient value="ops@example.com"/>)", R"(email="alerts@example.com")"}) {
            const std::string replacement = where.find("Recipient") != std::string::npos
                                                ? std::string("<Recipient value=\"") + row.address + "\"/>"
                                                : std::string("email=\"") + row.address + "\"";
            ReportingChannel channel;
            try {
                channel.do_configure(config(replaced(hostileConfig(), where, replacement)));
                ADD_FAILURE() << "accepted " << row.address;
            } catch (const Tamtk::Exception& e) {
                EXPECT_NE(std::string(e.what()).find(row.refusal), std::string::npos) << e.what();
            }
        }
    }
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(replaced(hostileConfig(), R"(<Recipient value="ops@example.com"/>)",
                                                     R"(<Recipient value="&quot;a&#9;b&quot;@example.com"/>)"))));
    TestAgent agent;
    agent.reset();
    channel.do_log(event(7, "<event><host>h</host><detail>d</detail></event>"));
    ASSERT_EQ(agent.count(), 1u);
    EXPECT_EQ(readMail(agent.message(0), hostileHeaders(true)).problems, std::vector<std::string>());
    EXPECT_EQ(agent.recipients(0), "\"a\tb\"@example.com;oncall@example.org;");
}
