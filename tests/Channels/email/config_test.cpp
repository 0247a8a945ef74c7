#include "channel_fixture.h"

using namespace testing_support;

namespace {

const std::string kRecipients =
    R"(<RecipientList><Recipient value="ops@example.com"/><Recipient value="oncall@example.org"/></RecipientList>)";
const std::string kSender = R"(<Sender name="Alerter" email="alerts@example.com"/>)";
const std::string kSubject = R"(<Subject value="Alert"/>)";
const std::string kCharsets =
    R"(<Charset enabled="yes" locale="fr" charset="ISO-8859-15"/>
    <Charset enabled="yes" locale="" charset="UTF-8"/>)";
const std::string kTokens = R"(<Token name="host" xpath="/event/host"/>
    <Token name="sev" default="HIGH"/>)";

std::string agentTag() {
    return std::string(R"(<EmailAgent lib=")") + TEST_AGENT_PATH + R"(">)";
}

struct FaultRow {
    const char* what;
    std::string from, to;
    const char* message;  // exact text, or a prefix when `prefix` is set
    int line;             // the configuration fault's line; 0 for other families
    bool prefix;
    std::string from2 = "", to2 = "";  // a second replacement, when one is not enough
};

}  // namespace

TEST(Configure, EveryFaultHasItsTextAndLine) {
    const FaultRow rows[] = {
        {"no defaults", "<Default>", "<Defaults>", "p && !p->empty()", 449, false, "</Default>",
         "</Defaults>"},
        {"recipient without address", kRecipients, "<RecipientList><Recipient/></RecipientList>",
         "pRecipientList", 396, false},
        {"empty recipient list", kRecipients, "<RecipientList/>", "Empty recipient list", 417,
         false},
        {"no recipient list", kRecipients, "", "Empty recipient list", 417, false},
        {"no sender", kSender, "", "pSender", 421, false},
        {"sender without name", kSender, R"(<Sender email="a@b.c"/>)", "pSenderAttr", 423, false},
        {"sender without email", kSender, R"(<Sender name="n"/>)", "pSenderAttr", 427, false},
        {"no subject", kSubject, "", "pSubject", 431, false},
        {"subject without value", kSubject, "<Subject/>", "pSubjectAttr", 433, false},
        {"matching charset without name", kCharsets, R"(<Charset enabled="yes" locale=""/>)",
         "pCharset", 375, false},
        {"matching charset empty", kCharsets, R"(<Charset enabled="yes" locale="" charset=""/>)",
         "pData && !pData->empty()", 377, false},
        {"no agent", agentTag(), "<NoAgent>", "pEmailAgentList && !pEmailAgentList->empty()", 189,
         false, "</EmailAgent>", "</NoAgent>"},
        {"agent without lib", agentTag(), "<EmailAgent>", "pLibAttr && pLibAttr->value()", 193,
         false},
        {"agent with empty lib", agentTag(), R"(<EmailAgent lib="">)",
         "pLibAttr && pLibAttr->value()", 193, false},
        {"group without message", "<Message>Host %host% is %sev%</Message>", "", "pMessage", 0,
         false},
        {"event without id", R"(<Event id="8" enabled="yes"/>)", R"(<Event enabled="yes"/>)", "pID",
         0, false},
        {"event id not a number", R"(<Event id="8" enabled="yes"/>)",
         R"(<Event id="eight" enabled="yes"/>)",
         "Could not perform the cast from the value to the specific type", 0, false},
        {"invalid sender address", kSender, R"(<Sender name="n" email="a@b..c"/>)",
         "double-dot found in domain name", 0, true},
        {"agent library missing", agentTag(), R"(<EmailAgent lib="/nonexistent/libagent.so">)",
         "Opening of module /nonexistent/libagent.so failed with error ", 0, true},
        {"library without sendEmail", agentTag(),
         std::string(R"(<EmailAgent lib=")") + NO_AGENT_PATH + R"(">)",
         "Could not obtain address for sendEmail", 0, true},
    };
    for (const FaultRow& row : rows) {
        SCOPED_TRACE(row.what);
        ReportingChannel channel;
        std::string xml = replaced(baseConfig(), row.from, row.to);
        if (!row.from2.empty())
            xml = replaced(xml, row.from2, row.to2);
        try {
            channel.do_configure(config(xml));
            ADD_FAILURE() << "configured without a fault";
        } catch (const Osk::ConfigException& e) {
            EXPECT_STREQ(e.what(), row.message);
            EXPECT_EQ(e.location().line, row.line);
            EXPECT_STREQ(e.location().file.c_str(), "email_channel");
            EXPECT_NE(std::string(e.location().function.c_str()).find("Osk::email_channel::"),
                      std::string::npos);
        } catch (const Tamtk::Exception& e) {
            EXPECT_EQ(row.line, 0) << "expected a configuration fault, got: " << e.what();
            if (row.prefix) {
                EXPECT_EQ(std::string(e.what()).find(row.message), 0u) << e.what();
            } else {
                EXPECT_STREQ(e.what(), row.message);
            }
        }
    }
}

TEST(Configure, CharsetIsChosenByLocalePrefix) {
    struct Row {
        const char* tamLang;
        const char* language;
        std::string charsets;
        const char* expected;
    };
    const std::string longLocale(80, 'f');
    const auto only = [](const std::string& locale) {
        return R"(<Charset enabled="yes" locale=")" + locale + R"(" charset="KOI8-R"/>)";
    };
    const Row rows[] = {
        {nullptr, "fr_FR", R"(<Charset enabled="yes" locale="fr" charset="ISO-8859-15"/>)",
         "ISO-8859-15"},
        {nullptr, "fr_FR", R"(<Charset enabled="yes" locale="FR" charset="ISO-8859-15"/>)",
         "UTF-8"},
        {nullptr, "fr_FR", R"(<Charset enabled="no" locale="fr" charset="ISO-8859-15"/>)", "UTF-8"},
        {"de_DE.UTF-8", "fr_FR",
         R"(<Charset enabled="yes" locale="fr" charset="ISO-8859-15"/><Charset enabled="yes" locale="de" charset="ISO-8859-1"/>)",
         "ISO-8859-1"},
        {nullptr, nullptr, only(""), "KOI8-R"},
        {nullptr, nullptr, only("x"), "UTF-8"},
        {"", "ru", only("ru"), "KOI8-R"},
        {nullptr, "fr_FR",
         R"(<Charset enabled="yes" locale="fr_FR" charset="ISO-8859-15"/><Charset enabled="yes" locale="fr" charset="ISO-8859-1"/>)",
         "ISO-8859-15"},
        // The environment's locale is cut to 63 bytes.
        {longLocale.c_str(), nullptr, only(longLocale.substr(0, 63)), "KOI8-R"},
        {longLocale.c_str(), nullptr, only(longLocale.substr(0, 64)), "UTF-8"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.charsets);
        ScopedEnv tam("TAM_LANG", row.tamLang), language("LANGUAGE", row.language);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(replaced(baseConfig(), kCharsets, row.charsets))));
        const std::vector<std::string> mails = mailsFor(channel, 7, "<event/>");
        ASSERT_EQ(mails.size(), 1u);
        EXPECT_NE(mails[0].find("charset=\"" + std::string(row.expected) + "\""), std::string::npos)
            << mails[0];
    }
}

TEST(Configure, QuirksThatAreKept) {
    // Tokens a, a broken one, and b: the broken one keeps its alternative.
    const std::string tokens = R"(<Token name="a" xpath="/e/a"/>
      <Token name="broken" xpath="///["/>
      <Token name="b" default="B"/>
      <Token name="a" default="again"/>
      <Token default="nameless"/>)";
    std::string xml = replaced(baseConfig(), kTokens, tokens);
    xml = replaced(xml, "<Message>Host %host% is %sev%</Message>", "<Message>%a%</Message>");
    // The same header in the defaults and in the group: the defaults win.
    xml = replaced(
        xml, R"(<Header name="X-Group" default="g1"/>)",
        R"(<Header name="X-Host" default="group" xpath="/other"/><Header name="X-Group" default="g1"/><Header name="X-Group" default="second"/>)");
    // A second group naming id 7 again.
    xml = replaced(xml, "<EmailAgent",
                   R"(<EventGroup enabled="yes"><Message>%b% then %broken% rest</Message>
      <Event id="7" enabled="yes"/><Event id="9" enabled="yes"/><Event id="10" enabled="no"/></EventGroup>
      <EventGroup enabled="no"><Message>off</Message><Event id="11" enabled="yes"/></EventGroup>
      <EmailAgent)");
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(xml)));

    std::vector<std::string> mails = mailsFor(channel, 7, "<e/>");
    ASSERT_EQ(mails.size(), 1u);
    MailShape mail = readMail(mails[0], hostileHeaders(false));
    EXPECT_EQ(mail.body, "")
        << "the first group naming an id, and the first definition of a token, win";
    EXPECT_EQ(decodeWords(mail.headers["X-Host"]), "unknown");
    EXPECT_EQ(decodeWords(mail.headers["X-Group"]), "g1")
        << "a repeated name keeps its first definition";

    mails = mailsFor(channel, 9, "<e/>");
    ASSERT_EQ(mails.size(), 1u);
    EXPECT_EQ(readMail(mails[0], standardHeaders()).body, "B")
        << "a broken token's placeholder still cuts";
    EXPECT_TRUE(mailsFor(channel, 10, "<e/>").empty());
    EXPECT_TRUE(mailsFor(channel, 11, "<e/>").empty());

    std::vector<std::string> texts;
    for (const Report& r : channel.reports) {
        EXPECT_EQ(r.severity, "warning");
        texts.push_back(r.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"Error inserting into tokens map",
                                               "Error inserting into event group map"}));
}

TEST(Configure, TokensThatCannotBeReadStopTheConfiguration) {
    ReportingChannel channel;
    EXPECT_FALSE(channel.do_configure(
        config(replaced(baseConfig(), kTokens, R"(<Token name="x" xpath="((("/>)"))));
    ASSERT_EQ(channel.reports.size(), 1u);
    EXPECT_EQ(channel.reports[0].text, "Error reading tokens during configuration");
    EXPECT_EQ(channel.reports[0].severity, "warning");
    EXPECT_TRUE(mailsFor(channel, 7, "<event/>").empty()) << "no group was read";

    ReportingChannel invalid;
    EXPECT_THROW(invalid.do_configure(
                     config(replaced(baseConfig(), kTokens, R"(<Token name="(" default="x"/>)"))),
                 std::runtime_error);
}

TEST(Configure, AgentParametersWithoutNameOrValueAreReported) {
    ReportingChannel channel;
    const std::string xml = replaced(baseConfig(), R"(<Param name="mode" value="record"/>)",
                                     R"(<Param name="a" value="1"/><Param name="a" value="2"/>
                                        <Param name="b"/><Param name="c" value=""/><Param value="4"/>)");
    ASSERT_TRUE(channel.do_configure(config(xml)));
    std::vector<std::string> texts;
    for (const Report& r : channel.reports) texts.push_back(r.text);
    EXPECT_EQ(texts,
              (std::vector<std::string>{"pName && pValue", "Empty value", "pName && pValue"}));
    EXPECT_EQ(mailsFor(channel, 7, "<event/>").size(), 1u);
}

TEST(Configure, NothingIsRolledBackAndReconfigurationAdds) {
    ReportingChannel channel;
    EXPECT_THROW(channel.do_configure(config(replaced(baseConfig(), kSubject, ""))),
                 Osk::ConfigException);
    ASSERT_TRUE(channel.do_configure(config(baseConfig())));
    TestAgent agent;
    channel.do_log(event(7, "<event/>"));
    ASSERT_EQ(agent.count(), 1u);
    EXPECT_EQ(agent.recipients(0),
              "ops@example.com;oncall@example.org;ops@example.com;oncall@example.org;")
        << "recipients are appended on every configuration, a failed one too";

    channel.do_shutdown();
    channel.do_log(event(7, "<event/>"));
    EXPECT_EQ(agent.count(), 1u) << "a channel that was shut down knows no event";

    ASSERT_TRUE(channel.do_configure(config(replaced(baseConfig(), kCharsets, ""))));
    channel.do_log(event(7, "<event/>"));
    ASSERT_EQ(agent.count(), 2u);
    EXPECT_EQ(agent.recipients(1), "ops@example.com;oncall@example.org;");
    EXPECT_NE(agent.message(1).find("charset=\"\""), std::string::npos)
        << "not reset to UTF-8 after a shutdown";
}

// Names written into the mail as they stand must not break or add header lines.
TEST(Configure, NamesThatCouldBreakTheHeaderAreRefused) {
    const std::string host = R"(<Header name="X-Host" xpath="/event/host" default="unknown"/>)";
    const std::string group = R"(<Header name="X-Group" default="g1"/>)";
    struct Row {
        const std::string* from;  // the fragment that takes the name
        const char* name;         // as written in the XML
        bool refused;
    };
    const Row rows[] = {
        {&kCharsets, "ISO-8859-15", false},
        {&kCharsets, "Shift_JIS", false},
        {&kCharsets, "x-mac-roman", false},
        {&kCharsets, "UTF-8&#13;", true},
        {&kCharsets, "UTF-8&#10;Bcc: x@y.z", true},
        {&kCharsets, "ISO 8859-1", true},
        {&kCharsets, "utf-8&quot;", true},
        {&kCharsets, "a;b=c", true},
        {&kCharsets, "UTF-8?B?", true},
        {&kCharsets, "K\xC3\x96I8", true},
        {&host, "X-Ticket_Id.2", false},
        {&group, "X-A", false},
        {&host, "X-Host&#10;Bcc", true},
        {&group, "X-Group&#13;&#10;Bcc: x@y.z", true},
        {&group, "X Group", true},
        {&group, "X-Group:", true},
        {&host, "X-Höst", true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const bool charset = row.from == &kCharsets;
        const std::string fragment =
            charset
                ? R"(<Charset enabled="yes" locale="" charset=")" + std::string(row.name) + "\"/>"
                : replaced(*row.from, row.from == &host ? "X-Host" : "X-Group", row.name);
        ReportingChannel channel;
        try {
            EXPECT_TRUE(channel.do_configure(config(replaced(baseConfig(), *row.from, fragment))));
            EXPECT_FALSE(row.refused) << "accepted";
        } catch (const Osk::ConfigException& e) {
            EXPECT_TRUE(row.refused);
            const std::string refusal =
                charset ? "Invalid charset name [[ " : "Invalid header name [[ ";
            EXPECT_EQ(std::string(e.what()).rfind(refusal, 0), 0u) << e.what();
        }
    }
}
