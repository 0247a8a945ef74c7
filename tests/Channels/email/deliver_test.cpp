#include <vector>

#include "channel_fixture.h"

using namespace testing_support;

namespace {

const std::string kTokens = R"(<Token name="host" xpath="/event/host"/>
    <Token name="sev" default="HIGH"/>)";

// A configuration whose group 7 renders `message` with tokens a (XPath with
// a default that is never used), b (constant), s (stylesheet using the
// locale) and bad (a stylesheet that fails).
std::string deliveryConfig(const std::string& message) {
    std::string xml = replaced(baseConfig(), kTokens, R"(
      <Token name="a" xpath="/event/a" default="never"/>
      <Token name="b" default="B"/>
      <Token name="s" xpath="/event/a"><xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
        <xsl:output method="text"/><xsl:param name="locale"/>
        <xsl:template match="/">[<xsl:value-of select="$locale"/>:<xsl:value-of select="/event/host"/>]</xsl:template>
      </xsl:stylesheet></Token>
      <Token name="bad"><xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform">
        <xsl:template match="/"><xsl:message terminate="yes">stop</xsl:message></xsl:template>
      </xsl:stylesheet></Token>)");
    return replaced(xml, "<Message>Host %host% is %sev%</Message>",
                    "<Message>" + message + "</Message>");
}

}  // namespace

// Every row is delivered: a rendering fault is reported at critical and the
// mail still goes out with what was rendered before it.
TEST(Render, TemplatesAreFilledAsTheTokensSay) {
    struct Row {
        const char* what;
        std::string message;
        std::string event;
        std::string body;
        std::size_t criticals;
    };
    const Row rows[] = {
        {"no placeholder", "plain text", "<event/>", "plain text", 0},
        {"xpath value", "value=%a%.", "<event><a>42</a></event>", "value=42.", 0},
        {"xpath finds nothing: vanishes, no default", "x%a%y", "<event/>", "xy", 0},
        {"constant", "%b%-%b%", "<event/>", "B-B", 0},
        {"stylesheet wins over xpath, gets the locale", "%s%",
         "<event><a>1</a><host>h1</host></event>", "[de_DE:h1]", 0},
        {"multi-byte text copied byte for byte", "Grüße %b% – 世界 %a%",
         "<event><a>ümlaut</a></event>", "Grüße B – 世界 ümlaut", 0},
        // %bad% is the last token, so the expression also matches it with more closing signs.
        {"match that is no key cuts the message, text before it too", "x %bad%% y", "<event/>", "",
         0},
        {"cut keeps what was built before the previous match", "%b% then %bad%%% rest", "<event/>",
         "B", 0},
        {"last token with one closing percent is fine", "%b% %a%%", "<event><a>A</a></event>",
         "B A%", 0},
        {"failing stylesheet keeps the text so far", "before %b% %bad% after", "<event/>",
         "before B ", 1},
    };
    ScopedEnv tam("TAM_LANG", "de_DE");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(deliveryConfig(row.message))));
        const std::vector<std::string> mails = mailsFor(channel, 7, row.event);
        ASSERT_EQ(mails.size(), 1u);
        EXPECT_EQ(readMail(mails[0], hostileHeaders(false)).body, row.body);
        ASSERT_EQ(channel.reports.size(), row.criticals);
        for (const Report& report : channel.reports) {
            EXPECT_EQ(report.severity, "critical");
            EXPECT_EQ(report.text.rfind("Tamtk exception [", 0), 0u) << report.text;
        }
    }
}

TEST(Deliver, MatchingEventsReachTheAgentAndNothingEscapes) {
    TestAgent agent;
    ReportingChannel channel;
    const std::string headers = R"(<Header name="X-Group" default="g1"/>
        <Header name="X-Default" xpath="/event/missing" default="fallback"/>
        <Header name="X-Empty-Default" xpath="/event/missing" default=""/>
        <Header name="X-Nothing" xpath="/event/missing"/>)";
    ASSERT_TRUE(channel.do_configure(config(replaced(
        deliveryConfig("Host %a% down"), R"(<Header name="X-Group" default="g1"/>)", headers))));

    channel.do_log(event(99, "<event/>"));
    EXPECT_EQ(agent.count(), 0u) << "unknown ids are dropped";
    EXPECT_TRUE(channel.reports.empty()) << "silently";

    channel.do_log(event(7, "<event><a>db1</a><host>h</host></event>"));
    ASSERT_EQ(agent.count(), 1u);
    const std::string mail = agent.message(0);
    EXPECT_EQ(agent.recipients(0), "ops@example.com;oncall@example.org;");
    EXPECT_EQ(mail.rfind("To: <ops@example.com>,\n\t<oncall@example.org>\n", 0), 0u) << mail;
    std::set<std::string> names = hostileHeaders(false);
    names.insert("X-Default");
    MailShape shape = readMail(mail, names);
    EXPECT_EQ(shape.problems, std::vector<std::string>());
    EXPECT_EQ(decodeWords(shape.headers["From"]), "Alerter");
    EXPECT_NE(shape.headers["From"].find("<alerts@example.com>"), std::string::npos);
    EXPECT_EQ(decodeWords(shape.headers["Subject"]), "Alert");
    EXPECT_EQ(shape.headers["X-Host"], "=?UTF-8?B?aA==?=");
    EXPECT_EQ(decodeWords(shape.headers["X-Group"]), "g1");
    EXPECT_EQ(decodeWords(shape.headers["X-Default"]), "fallback");
    EXPECT_EQ(shape.body, "Host db1 down");
    EXPECT_TRUE(channel.reports.empty());
}

TEST(Deliver, AgentFailuresAreWarnings) {
    struct Row {
        const char* fail;
        const char* prefix;
    };
    const Row rows[] = {{"tamtk", "Tamtk exception:: [ agent refused the message ["},
                        {"std", "Other exception: [ agent broke ]"},
                        {"int", "Other exception: [ int ]"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.fail);
        ReportingChannel channel;
        const std::string xml =
            replaced(deliveryConfig("m"), R"(<Param name="mode" value="record"/>)",
                     std::string(R"(<Param name="fail" value=")") + row.fail + R"("/>)");
        ASSERT_TRUE(channel.do_configure(config(xml)));
        EXPECT_NO_THROW(channel.do_log(event(7, "<event/>")));
        ASSERT_EQ(channel.reports.size(), 1u);
        EXPECT_EQ(channel.reports[0].severity, "warning");
        EXPECT_EQ(channel.reports[0].text.rfind(row.prefix, 0), 0u) << channel.reports[0].text;
    }
}

TEST(Deliver, GroupSubjectsAreRenderedAndEncodedAsTheDefaultIs) {
    struct Row {
        const char* what;
        const char* subject;  // the group's Subject element; null: none
        std::string event;
        const char* lang;      // "fr" picks ISO-8859-1, anything else UTF-8
        std::string expected;  // decoded, in the mail's charset
        std::size_t criticals;
    };
    const std::string cut(450, 'x');
    std::string umlauts, ideographs;
    for (int i = 0; i < 450; ++i) umlauts += "ü", ideographs += "世";
    const Row rows[] = {
        {"no Subject: the default", nullptr, "<event><a>1</a></event>", "de", "Alert", 0},
        {"xpath and constant", "[ALERT] disk %a% full on %b%", "<event><a>97%</a></event>", "de",
         "[ALERT] disk 97% full on B", 0},
        {"stylesheet with the locale", "%s% down", "<event><host>h1</host></event>", "de",
         "[de:h1] down", 0},
        {"vanished placeholder", "disk %a% full", "<event/>", "de", "disk  full", 0},
        {"ISO-8859-1, cut at the limit", "%a%", "<event><a>" + umlauts + "</a></event>", "fr",
         std::string(400, '\xFC'), 0},
        {"UTF-8, cut at the limit", "%a%", "<event><a>" + ideographs + "</a></event>", "de",
         ideographs.substr(0, 400 * 3), 0},
        {"ASCII cut at the limit", "y%a%", "<event><a>" + cut + "</a></event>", "de",
         "y" + cut.substr(0, 399), 0},
        {"line breaks in the value and the template", "\n  %a%\n",
         "<event><a>one&#13;\nX-Injected: yes\nthree</a></event>", "de",
         "one  X-Injected: yes three", 0},
        {"rendering fault: reported, mail still sent", "%b% %bad% lost", "<event/>", "de", "B", 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScopedEnv tam("TAM_LANG", row.lang);
        std::string xml =
            replaced(deliveryConfig("body"), R"(charset="ISO-8859-15")", R"(charset="ISO-8859-1")");
        if (row.subject) {
            xml = replaced(xml, "</Message>",
                           std::string("</Message><Subject>") + row.subject + "</Subject>");
        }
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(xml)));
        const std::vector<std::string> mails = mailsFor(channel, 7, row.event);
        ASSERT_EQ(mails.size(), 1u);
        MailShape shape = readMail(mails[0], hostileHeaders(false));
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        const std::string charset = std::string(row.lang) == "fr" ? "ISO-8859-1" : "UTF-8";
        EXPECT_EQ(shape.headers["Subject"].rfind("=?" + charset + "?B?", 0), 0u)
            << shape.headers["Subject"];
        EXPECT_EQ(decodeWords(shape.headers["Subject"]), row.expected);
        EXPECT_EQ(channel.reports.size(), row.criticals);
    }
}
