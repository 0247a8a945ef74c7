// Hostile values, stylesheets and documents: the mail keeps its shape, a token that
// cannot be rendered is reported at critical and cuts the message, nothing reads a file.

#include <gtest/gtest.h>

#include <set>

#include "channel_fixture.h"
#include "tamtk/XmlToolkit/XmlTestSupport.h"

using namespace testing_support;

namespace {

// Line breaks and tabs as character references, so that the parser keeps them.
std::string xmlText(const std::string& value) {
    std::string out;
    for (char c : value) {
        out += c == '\r' || c == '\n' || c == '\t' ? "&#" + std::to_string(c) + ";"
                                                   : std::string(1, c);
    }
    return out;
}

// Group 7 renders `message` in UTF-8 with tokens host, detail and `extraTokens`;
// the mails carry X-Host, X-Group and X-Detail.
std::string hostileConfig(const std::string& message, const std::string& extraTokens) {
    std::string xml = replaced(baseConfig(), R"(<Token name="sev" default="HIGH"/>)",
                               R"(<Token name="detail" xpath="/event/detail"/>)" + extraTokens);
    xml = replaced(xml, "<Message>Host %host% is %sev%</Message>",
                   "<Message>" + message + "</Message>");
    xml = replaced(
        xml, R"(<Header name="X-Group" default="g1"/>)",
        R"(<Header name="X-Group" default="g1"/><Header name="X-Detail" xpath="/event/detail"/>)");
    return replaced(xml, R"(charset="ISO-8859-15")", R"(charset="UTF-8")");
}

struct Outcome {
    std::string parseError;  // the XmlException of an event that does not parse
    bool sent = false;       // the agent received a mail for it
    std::string mail;
    std::vector<Report> reports;  // made while the hostile event was delivered
};

// Delivers `xml` as event 7 between two ordinary events, which must arrive as themselves.
Outcome deliverBetween(ReportingChannel& channel, const std::string& xml) {
    TestAgent agent;
    Outcome outcome;
    channel.do_log(event(7, "<event><host>before</host></event>"));
    channel.reports.clear();
    try {
        const boost::shared_ptr<Osk::ChannelEvent> hostile = event(7, xml);
        EXPECT_NO_THROW(channel.do_log(hostile));
    } catch (const Tamxml::XmlException& e) {
        outcome.parseError = e.what();
    }
    outcome.reports = channel.reports;
    const std::size_t afterHostile = agent.count();
    channel.do_log(event(7, "<event><host>after</host></event>"));

    EXPECT_TRUE(afterHostile == 1 || afterHostile == 2) << "one event, one mail at most";
    EXPECT_EQ(agent.count(), afterHostile + 1);
    if (agent.count() != afterHostile + 1 || afterHostile < 1)
        return outcome;
    for (const auto& [i, host] :
         {std::make_pair(std::size_t(0), "before"), std::make_pair(agent.count() - 1, "after")}) {
        MailShape shape = readMail(agent.message(i), hostileHeaders(false));
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(decodeWords(shape.headers["X-Host"]), host);
    }
    outcome.sent = afterHostile == 2;
    outcome.mail = outcome.sent ? agent.message(1) : "";
    return outcome;
}

std::string stylesheetToken(const std::string& body) {
    return R"(<Token name="s"><xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">)" +
           body + "</xsl:stylesheet></Token>";
}

// Templates a1 .. a<depth>, each calling the next twice: 2^depth calls.
std::string branchingRecursion(int depth) {
    std::string body = "<xsl:template match='/'><xsl:call-template name='a1'/></xsl:template>";
    for (int i = 1; i < depth; ++i) {
        const std::string next = "<xsl:call-template name='a" + std::to_string(i + 1) + "'/>";
        body +=
            "<xsl:template name='a" + std::to_string(i) + "'>" + next + next + "</xsl:template>";
    }
    return body + "<xsl:template name='a" + std::to_string(depth) + "'>x</xsl:template>";
}

// A 16-character string doubled `times` times, then written out.
std::string doubledString(int times) {
    std::string body =
        "<xsl:output method='text'/><xsl:template match='/'>"
        "<xsl:variable name='s0' select=\"'0123456789abcdef'\"/>";
    for (int i = 1; i <= times; ++i) {
        const std::string prev = "$s" + std::to_string(i - 1);
        body += "<xsl:variable name='s" + std::to_string(i) + "' select='concat(" + prev + "," +
                prev + ")'/>";
    }
    return body + "<xsl:value-of select='$s" + std::to_string(times) + "'/></xsl:template>";
}

}  // namespace

// Each value in the event, a constant, a header default, the subject, the sender's name and
// the incident's thread key.
TEST(HostileValues, LineBreaksInEveryTemplatedValueStayInsideIt) {
    const std::string stylesheet = stylesheetToken(
        R"(<xsl:output method="text"/><xsl:template match="/"><xsl:value-of select="/event/v"/></xsl:template>)");
    for (const std::string value :
         {"a\rb", "a\nb", "a\r\nb", "a\n\nX-Injected: yes", "a\r\nBcc: victim@example.com",
          "a\n\tfolded", "\r\n\r\n", "Subject: second"}) {
        SCOPED_TRACE(xmlText(value));
        const std::string text = xmlText(value);
        std::string xml =
            hostileConfig("Host %host%: %detail%|%s%|%c%",
                          stylesheet + R"(<Token name="c" default=")" + text + "\"/>");
        xml = replaced(xml, R"(<Header name="X-Group" default="g1"/>)",
                       R"(<Header name="X-Group" default=")" + text + "\"/>");
        xml = replaced(xml, R"(<Subject value="Alert"/>)", R"(<Subject value=")" + text + "\"/>");
        xml = replaced(xml, R"(name="Alerter")", "name=\"" + text + "\"");
        xml = replaced(xml, "</Message>", "</Message><Thread>%detail%</Thread>");
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(xml)));
        const Outcome outcome = deliverBetween(channel, "<event><host>h</host><detail>" + text +
                                                            "</detail><v>" + text + "</v></event>");
        ASSERT_TRUE(outcome.sent);
        EXPECT_TRUE(outcome.reports.empty());
        std::set<std::string> headers = hostileHeaders(true);
        // A key of line breaks alone renders empty and names no incident.
        const bool threaded = value.find_first_not_of("\r\n\t") != std::string::npos;
        if (threaded) {
            headers.insert({"References", "In-Reply-To"});
        }
        const MailShape shape = readMail(outcome.mail, headers);
        EXPECT_EQ(shape.problems, std::vector<std::string>()) << outcome.mail;
        EXPECT_EQ(shape.body, "Host h: " + value + "|" + value + "|" + value);
        if (threaded) {
            EXPECT_EQ(shape.headers.at("References"), shape.headers.at("In-Reply-To"));
        }
        for (const char* header : {"X-Detail", "X-Group", "Subject", "From"}) {
            EXPECT_EQ(decodeWords(shape.headers.at(header)), value) << header;
        }
    }
}

// Entity bounds are the toolkit's business: here only that the event is refused.
TEST(HostileEvents, EachRowIsRefusedOrRenderedSafely) {
    const std::string secret = "SECRET-51ab";
    xmltest::TempDir dir;
    const std::string secretFile = dir.write("secret.txt", secret);
    const std::string other =
        dir.write("other.xsl",
                  "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
                  "<xsl:template match='/'>" +
                      secret + "</xsl:template></xsl:stylesheet>");
    const std::string entity = "<!ENTITY x SYSTEM 'file://" + secretFile + "'>";
    const std::string plain = "<event><host>h</host><detail>d</detail></event>";
    std::string quadratic =
        "<!DOCTYPE event [<!ENTITY a '" + std::string(100000, 'x') + "'>]><event><detail>";
    for (int i = 0; i < 10000; ++i) quadratic += "&a;";
    quadratic += "</detail></event>";
    struct Row {
        const char* name;
        std::string limits;  // the Limits element
        std::string body;    // the token's stylesheet
        std::string event;
        const char* reason;  // part of the critical report or of the parse error; null: none
        std::string text;    // the mail's body; empty: no mail
    };
    const std::string cut = "Host h: d / ";
    const Row rows[] = {
        {"reads a local file", "",
         "<xsl:template match='/'><xsl:copy-of select=\"document('" + secretFile +
             "')\"/></xsl:template>",
         plain, "denied", cut},
        // Refused at configuration: its placeholder cuts as a failed token does.
        {"imports a file", "", "<xsl:import href='" + other + "'/>", plain, nullptr, "Host h: d"},
        {"recurses without end", "",
         "<xsl:template match='/'><xsl:apply-templates select='/'/></xsl:template>", plain,
         "infinite template recursion", cut},
        {"runs too long", "<Limits stylesheet_seconds='0.05'/>", branchingRecursion(40), plain,
         "longer than its bound of 0.050 s", cut},
        {"writes 2 MiB", "", doubledString(17), plain, "output passed its bound of 1048576 bytes",
         cut},
        {"writes 32 bytes of 32", "<Limits stylesheet_output_bytes='32'/>", doubledString(1), plain,
         nullptr, cut + "0123456789abcdef0123456789abcdef / end"},
        {"writes 32 bytes of 31", "<Limits stylesheet_output_bytes='31'/>", doubledString(1), plain,
         "output passed its bound of 31 bytes", cut},
        {"an external entity", "", doubledString(0),
         "<!DOCTYPE event [" + entity + "]><event><host>h</host><detail>a&x;b</detail></event>",
         nullptr, "Host h: ab / 0123456789abcdef / end"},
        {"entities that expand without end", "", doubledString(0), quadratic,
         "entity references expand to more than", ""},
    };
    // The configuration names the secret file through an entity too.
    const std::string head = "<!DOCTYPE Channel [" + entity + "]>";
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string base =
            hostileConfig("Host %host%: %detail%&x; / %s% / end", stylesheetToken(row.body));
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(replaced(
            head + base.substr(base.find("<Channel>")), "</Default>", row.limits + "</Default>"))));
        const Outcome outcome = deliverBetween(channel, row.event);
        if (row.text.empty()) {
            EXPECT_NE(outcome.parseError.find(row.reason), std::string::npos)
                << outcome.parseError.substr(0, 300);
            EXPECT_FALSE(outcome.sent);
            continue;
        }
        ASSERT_TRUE(outcome.sent) << "a rendering failure still sends what was rendered";
        const MailShape shape = readMail(outcome.mail, hostileHeaders(true));
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(shape.body, row.text);
        EXPECT_EQ(outcome.mail.find(secret), std::string::npos);
        ASSERT_EQ(outcome.reports.size(), row.reason ? 1u : 0u);
        if (row.reason) {
            EXPECT_EQ(outcome.reports[0].severity, "critical");
            EXPECT_NE(outcome.reports[0].text.find(row.reason), std::string::npos)
                << outcome.reports[0].text;
        }
    }
}
