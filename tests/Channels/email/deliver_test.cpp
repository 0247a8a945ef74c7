#include <sstream>
#include <vector>

#include "channel_fixture.h"

using namespace testing_support;

namespace {

const std::string kTokens = R"(<Token name="host" xpath="/event/host"/>
    <Token name="sev" default="HIGH"/>)";

// A configuration whose group 7 renders `message` with tokens a (XPath with
// a default that is never used), b (constant), s (stylesheet using the locale).
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

std::string base64Decoded(const std::string& b64) {
    static const std::string digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    int bits = 0, value = 0;
    for (char c : b64) {
        const std::string::size_type d = digits.find(c);
        if (c == '=' || c == '\n' || d == std::string::npos)
            continue;
        value = ((value << 6) | static_cast<int>(d)) & 0xFFF;  // only the undelivered bits
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((value >> bits) & 0xFF);
        }
    }
    return out;
}

// The body is the Base64 after the blank line; decoded with a table of its own.
std::string decodedBody(const std::string& mail) {
    return base64Decoded(mail.substr(mail.find("\n\n") + 2));
}

// The field names of the header block in order, and the bytes of the
// subject's encoded words (each of which must be in `charset`).
std::vector<std::string> headerNames(const std::string& mail, const std::string& charset,
                                     std::string& subject) {
    std::vector<std::string> names;
    std::istringstream in(mail.substr(0, mail.find("\n\n") + 1));
    bool inSubject = false;
    for (std::string line; std::getline(in, line);) {
        if (line[0] != '\t' && line[0] != ' ') {
            names.push_back(line.substr(0, line.find(':')));
            inSubject = names.back() == "Subject";
        }
        for (std::string::size_type at = line.find("=?"); inSubject && at != std::string::npos;
             at = line.find("=?", at + 2)) {
            const std::string::size_type b = line.find("?B?", at), end = line.find("?=", b);
            EXPECT_EQ(line.substr(at + 2, b - at - 2), charset) << line;
            subject += base64Decoded(line.substr(b + 3, end - b - 3));
            at = end;
        }
    }
    return names;
}

}  // namespace

TEST(Render, TemplatesAreFilledAsTheTokensSay) {
    struct Row {
        const char* what;
        std::string message;
        std::string event;
        std::string body;
    };
    const Row rows[] = {
        {"no placeholder", "plain text", "<event/>", "plain text"},
        {"xpath value", "value=%a%.", "<event><a>42</a></event>", "value=42."},
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
         "before B "},
    };
    ScopedEnv tam("TAM_LANG", "de_DE"), language("LANGUAGE", nullptr);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(deliveryConfig(row.message))));
        boost::shared_ptr<const Tamtk::Utf8Array> message;
        Osk::email_channel::HeaderMap headers;
        ASSERT_TRUE(channel.get_event_group_info(7, message, headers));
        std::string out;
        channel.get_msg(event(7, row.event), message, out);
        EXPECT_EQ(out, row.body);
    }
}

TEST(Render, FailuresAreReportedAtCritical) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(deliveryConfig("a %bad% b"))));
    auto message = channel.event_groups().at(7).message;
    std::string out;
    channel.get_msg(event(7, "<event/>"), message, out);
    ASSERT_EQ(channel.reports.size(), 1u);
    EXPECT_EQ(channel.reports[0].severity, "critical");
    EXPECT_EQ(channel.reports[0].text.rfind("Tamtk exception [", 0), 0u) << channel.reports[0].text;

    // No usable token: the empty expression is refused, not iterated.
    ReportingChannel empty;
    out.clear();
    empty.get_msg(event(7, "<event/>"), message, out);
    ASSERT_EQ(empty.reports.size(), 1u);
    EXPECT_EQ(empty.reports[0].severity, "critical");
    EXPECT_EQ(empty.reports[0].text, "Other exception [Invalid regular expression object]");
    EXPECT_EQ(out, "");
}

TEST(Render, ExtraHeaderValues) {
    ReportingChannel channel;
    Osk::email_channel::HeaderMap headers;
    headers["X-Found"].xpath = Tamxml::XPath("/event/host");
    headers["X-Found"].default_ = std::string("unused");
    headers["X-Default"].xpath = Tamxml::XPath("/event/missing");
    headers["X-Default"].default_ = std::string("fallback");
    headers["X-Empty-Default"].xpath = Tamxml::XPath("/event/missing");
    headers["X-Empty-Default"].default_ = std::string();
    headers["X-Nothing"].xpath = Tamxml::XPath("/event/missing");
    headers["X-Constant"].default_ = std::string("c");
    std::map<std::string, std::string> values;
    channel.get_extra_header_values(event(7, "<event><host>web1</host></event>"), headers, values);
    EXPECT_EQ(values, (std::map<std::string, std::string>{
                          {"X-Constant", "c"}, {"X-Default", "fallback"}, {"X-Found", "web1"}}));
}

TEST(Deliver, MatchingEventsReachTheAgentAndNothingEscapes) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    TestAgent agent;
    agent.reset();
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(deliveryConfig("Host %a% down"))));

    channel.do_log(event(99, "<event/>"));
    EXPECT_EQ(agent.count(), 0u) << "unknown ids are dropped";
    EXPECT_TRUE(channel.reports.empty()) << "silently";

    channel.do_log(event(7, "<event><a>db1</a><host>h</host></event>"));
    ASSERT_EQ(agent.count(), 1u);
    const std::string mail = agent.message(0);
    EXPECT_EQ(agent.recipients(0), "ops@example.com;oncall@example.org;");
    EXPECT_EQ(mail.rfind("To: <ops@example.com>,\n\t<oncall@example.org>\n", 0), 0u) << mail;
    EXPECT_NE(mail.find("\nX-Host: =?UTF-8?B?aA==?=\n"), std::string::npos) << mail;
    EXPECT_EQ(decodedBody(mail), "Host db1 down");
    EXPECT_TRUE(channel.reports.empty());
}

TEST(Deliver, AgentFailuresAreWarnings) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
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

TEST(Deliver, ARenderingFailureStillSendsTheMail) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    TestAgent agent;
    agent.reset();
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(deliveryConfig("kept %bad% lost"))));
    channel.do_log(event(7, "<event/>"));
    ASSERT_EQ(agent.count(), 1u);
    EXPECT_EQ(decodedBody(agent.message(0)), "kept ");
    ASSERT_EQ(channel.reports.size(), 1u);
    EXPECT_EQ(channel.reports[0].severity, "critical");
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
        ScopedEnv tam("TAM_LANG", row.lang), language("LANGUAGE", nullptr);
        std::string xml =
            replaced(deliveryConfig("body"), R"(charset="ISO-8859-15")", R"(charset="ISO-8859-1")");
        if (row.subject) {
            xml = replaced(xml, "</Message>",
                           std::string("</Message><Subject>") + row.subject + "</Subject>");
        }
        TestAgent agent;
        agent.reset();
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(xml)));
        channel.do_log(event(7, row.event));
        ASSERT_EQ(agent.count(), 1u);
        std::string subject;
        const std::vector<std::string> names = headerNames(
            agent.message(0), std::string(row.lang) == "fr" ? "ISO-8859-1" : "UTF-8", subject);
        EXPECT_EQ(subject, row.expected);
        EXPECT_EQ(names, (std::vector<std::string>{"To", "From", "Date", "Subject", "X-Group",
                                                   "X-Host", "MIME-Version", "Content-Disposition",
                                                   "Content-Type", "Content-Transfer-Encoding"}));
        EXPECT_EQ(channel.reports.size(), row.criticals);
    }
}
