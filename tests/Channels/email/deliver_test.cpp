#include <vector>

#include "channel_fixture.h"

using namespace testing_support;

namespace {

const std::string kTokens = R"(<Token name="host" xpath="/event/host"/>
    <Token name="sev" default="HIGH"/>)";

// Group 7 renders `message` with tokens a (XPath, unused default), b (constant),
// s (stylesheet given the locale) and bad (a failing stylesheet).
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

// A rendering fault is reported at critical; the mail still goes with what was rendered.
TEST(Render, TemplatesAreFilledAsTheTokensSay) {
    struct Row {
        const char* what;
        std::string message;
        std::string event;
        std::string body;
        std::size_t criticals = 0;
        std::string subject = "";  // when it differs from the body
    };
    std::string ideographs;
    for (int i = 0; i < 450; ++i) ideographs += "世";
    const Row rows[] = {
        {"no placeholder", "plain text", "<event/>", "plain text"},
        {"xpath value", "value=%a%.", "<event><a>97%</a></event>", "value=97%."},
        {"xpath finds nothing: vanishes, no default", "x%a%y", "<event/>", "xy"},
        {"constant", "%b%-%b%", "<event/>", "B-B"},
        {"stylesheet wins over xpath, gets the locale", "%s%",
         "<event><a>1</a><host>h1</host></event>", "[de_DE:h1]"},
        {"multi-byte text copied byte for byte", "Grüße %b% – 世界 %a%",
         "<event><a>ümlaut</a></event>", "Grüße B – 世界 ümlaut"},
        // %bad% is the last token, so the expression also matches it with more closing signs.
        {"match that is no key cuts the message, text before it too", "x %bad%% y", "<event/>", ""},
        {"cut keeps what was built before the previous match", "%b% then %bad%%% rest", "<event/>",
         "B"},
        {"last token with one closing percent is fine", "%b% %a%%", "<event><a>A</a></event>",
         "B A%"},
        {"failing stylesheet keeps the text so far", "before %b% %bad% after", "<event/>",
         "before B ", 2, "before B"},  // a subject loses its trailing blanks
        {"UTF-8, subject cut at the limit", "%a%", "<event><a>" + ideographs + "</a></event>",
         ideographs, 0, ideographs.substr(0, 400 * 3)},
        {"line breaks in the value and the template", "\n  %a%\n",
         "<event><a>one&#13;\nX-Injected: yes\nthree</a></event>",
         "\n  one\r\nX-Injected: yes\nthree\n", 0, "one  X-Injected: yes three"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ScopedEnv tam("TAM_LANG", "de_DE");
        const std::string xml = replaced(deliveryConfig(row.message), "</Message>",
                                         "</Message><Subject>" + row.message + "</Subject>");
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(xml)));
        const std::vector<std::string> mails = mailsFor(channel, 7, row.event);
        ASSERT_EQ(mails.size(), 1u);
        MailShape shape = readMail(mails[0], hostileHeaders(false));
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(shape.body, row.body);
        EXPECT_EQ(decodeWords(shape.headers["Subject"]),
                  row.subject.empty() ? row.body : row.subject);
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
    // A tab inside a quoted local part is a legal character.
    const std::string xml =
        replaced(deliveryConfig("Host %a% down"), R"(<Recipient value="ops@example.com"/>)",
                 R"(<Recipient value="&quot;a&#9;b&quot;@example.com"/>)");
    ASSERT_TRUE(channel.do_configure(
        config(replaced(xml, R"(<Header name="X-Group" default="g1"/>)", headers))));

    channel.do_log(event(7, "<event><a>db1</a><host>h</host></event>"));
    ASSERT_EQ(agent.count(), 1u);
    const std::string mail = agent.message(0);
    EXPECT_EQ(agent.recipients(0), "\"a\tb\"@example.com;oncall@example.org;");
    EXPECT_EQ(mail.rfind("To: <\"a\tb\"@example.com>,\n\t<oncall@example.org>\n", 0), 0u) << mail;
    std::set<std::string> names = hostileHeaders(false);
    names.insert("X-Default");
    MailShape shape = readMail(mail, names);
    EXPECT_EQ(shape.problems, std::vector<std::string>());
    EXPECT_EQ(decodeWords(shape.headers["X-Default"]), "fallback");
    EXPECT_EQ(shape.body, "Host db1 down");
    EXPECT_TRUE(channel.reports.empty());
}

// No event is lost silently: each failure is reported, and counted lost
// unless the agent's exception carries the kept mark alone.
TEST(Deliver, FailuresAreWarningsAndLossesCountByType) {
    struct Row {
        std::string from, to;
        const char* text;
        unsigned long lost;  // of two alerts; the agent saw both when it is in the way
    };
    const std::string mode = R"(<Param name="mode" value="record"/>)";
    const Row rows[] = {
        {mode, R"(<Param name="fail" value="tamtk"/>)",
         "Tamtk exception:: [ agent refused the message [", 2},
        {mode, R"(<Param name="fail" value="std"/>)", "Other exception: [ agent broke ]", 2},
        {mode, R"(<Param name="fail" value="int"/>)", "Other exception: [ int ]", 2},
        {mode, R"(<Param name="fail" value="kept"/>)",
         "Tamtk exception:: [ agent kept the message [", 0},
        {mode, R"(<Param name="fail" value="lost"/>)",
         "Tamtk exception:: [ agent lost the message [", 2},
        {mode, R"(<Param name="fail" value="both"/>)",
         "Tamtk exception:: [ agent kept and lost the message [", 2},
        {R"(locale="" charset="UTF-8")", R"(locale="" charset="X-NO-SUCH")", "Invalid argument", 2},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.to);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(replaced(deliveryConfig("m"), row.from, row.to))));
        TestAgent agent;
        for (int i = 0; i < 2; ++i) EXPECT_NO_THROW(channel.do_log(event(7, "<event/>")));
        EXPECT_EQ(agent.count(), row.from == mode ? 2u : 0u);
        EXPECT_EQ(channel.lost_alerts(), row.lost);
        ASSERT_EQ(channel.reports.size(), 2u);
        for (const Report& report : channel.reports) {
            EXPECT_EQ(report.severity, "warning");
            EXPECT_NE(report.text.find(row.text), std::string::npos) << report.text;
        }
    }
}
