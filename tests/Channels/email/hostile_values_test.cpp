// CR, LF and NUL in every value that reaches a mail, and control bytes in
// addresses, one row each: a value never adds a header line or breaks the
// mail's shape, and arrives whole (encoded) where it belongs.

#include <gtest/gtest.h>

#include "channel_fixture.h"

using namespace testing_support;

namespace {

// `value` as XML character data or attribute text, line breaks and tabs as
// character references so that the parser keeps them as they are.
std::string xmlText(const std::string& value) {
    std::string out;
    for (char c : value) {
        switch (c) {
            case '\r':
                out += "&#13;";
                break;
            case '\n':
                out += "&#10;";
                break;
            case '\t':
                out += "&#9;";
                break;
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

const char* const kValues[] = {"a\rb",
                               "a\nb",
                               "a\r\nb",
                               "a\n\nX-Injected: yes",
                               "a\r\nBcc: victim@example.com",
                               "a\n\tfolded",
                               "\r\n\r\n",
                               "Subject: second"};

}  // namespace

TEST(HostileValues, LineBreaksInEveryTemplatedValueStayInsideIt) {
    struct Row {
        const char* name;
        std::string message, tokens;  // for hostileConfig
        std::string from, to;  // a configuration fragment, and what replaces it ("@": the value)
        std::string header;    // a header that carries the value besides X-Detail
        std::string prefix;    // the body is this and the value
    };
    const std::string message = "Host %host%: %detail%";
    const Row rows[] = {
        {"XPath value from the event", message, "", "", "", "X-Detail", "Host h: "},
        {"stylesheet output", "%s%",
         R"(<Token name="s"><xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
              <xsl:output method="text"/><xsl:template match="/"><xsl:value-of select="/event/v"/></xsl:template>
            </xsl:stylesheet></Token>)",
         "", "", "X-Detail", ""},
        {"constant token", "%c%", R"(<Token name="c" default="@"/>)", "", "", "X-Detail", ""},
        {"extra header default", message, "", R"(<Header name="X-Group" default="g1"/>)",
         R"(<Header name="X-Group" default="@"/>)", "X-Group", "Host h: "},
        {"subject", message, "", R"(<Subject value="Alert"/>)", R"(<Subject value="@"/>)",
         "Subject", "Host h: "},
        {"sender display name", message, "", R"(name="Alerter")", R"(name="@")", "From",
         "Host h: "},
    };
    for (const Row& row : rows) {
        for (const std::string value : kValues) {
            SCOPED_TRACE(std::string(row.name) + ": " + xmlText(value));
            const auto fill = [&value](std::string text) {
                const std::string::size_type at = text.find('@');
                return at == std::string::npos ? text : text.replace(at, 1, xmlText(value));
            };
            std::string xml = hostileConfig(row.message, fill(row.tokens));
            if (!row.from.empty())
                xml = replaced(xml, row.from, fill(row.to));
            ReportingChannel channel;
            ASSERT_TRUE(channel.do_configure(config(xml)));
            const Outcome outcome =
                deliverBetween(channel, "<event><host>h</host><detail>" + xmlText(value) +
                                            "</detail><v>" + xmlText(value) + "</v></event>");
            ASSERT_TRUE(outcome.sent);
            EXPECT_TRUE(outcome.reports.empty());
            const MailShape shape = readMail(outcome.mail, hostileHeaders(true));
            EXPECT_EQ(shape.problems, std::vector<std::string>()) << outcome.mail;
            EXPECT_EQ(shape.body, row.prefix + value);
            EXPECT_EQ(decodeWords(shape.headers.at("X-Detail")), value);
            EXPECT_EQ(decodeWords(shape.headers.at(row.header)), value);
        }
    }
}

// A recipient or sender with a control byte stops do_configure with a clear
// message; a tab inside a quoted local part is a legal character and keeps
// the mail's shape.
TEST(HostileValues, ControlBytesInAddressesAreRefused) {
    struct Row {
        const char* address;
        const char* refusal;
    };
    const Row rows[] = {{"user@exa&#10;mple.com", "Invalid characters in domain name"},
                        {"user&#13;@example.com", "Invalid character in local part"},
                        {"us&#127;er@example.com", "Invalid character in local part"},
                        {"user@example.com&#10;Bcc: x@y.org", "Offending data was"}};
    const std::string recipient = R"(<Recipient value="ops@example.com"/>)";
    for (const Row& row : rows) {
        SCOPED_TRACE(row.address);
        for (const std::string& replacement :
             {std::string("<Recipient value=\"") + row.address + "\"/>",
              std::string("email=\"") + row.address + "\""}) {
            const std::string& where =
                replacement[0] == '<' ? recipient : R"(email="alerts@example.com")";
            ReportingChannel channel;
            try {
                channel.do_configure(config(replaced(hostileConfig(), where, replacement)));
                ADD_FAILURE() << "accepted " << replacement;
            } catch (const Tamtk::Exception& e) {
                EXPECT_NE(std::string(e.what()).find(row.refusal), std::string::npos) << e.what();
            }
        }
    }
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(replaced(
        hostileConfig(), recipient, R"(<Recipient value="&quot;a&#9;b&quot;@example.com"/>)"))));
    TestAgent agent;
    channel.do_log(event(7, "<event><host>h</host><detail>d</detail></event>"));
    ASSERT_EQ(agent.count(), 1u);
    EXPECT_EQ(readMail(agent.message(0), hostileHeaders(true)).problems,
              std::vector<std::string>());
    EXPECT_EQ(agent.recipients(0), "\"a\tb\"@example.com;oncall@example.org;");
}
