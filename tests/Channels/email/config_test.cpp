#include <functional>

#include "Toolkit/ComponentLoader.h"
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
const std::string kEvents = R"(<Event id="7" enabled="yes"/>)";

std::string agentTag() { return std::string(R"(<EmailAgent lib=")") + TEST_AGENT_PATH + R"(">)"; }

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
        {"no defaults", "<Default>", "<Defaults>", "p && !p->empty()", 449, false, "</Default>", "</Defaults>"},
        {"recipient without address", kRecipients, "<RecipientList><Recipient/></RecipientList>",
         "pRecipientList", 396, false},
        {"empty recipient list", kRecipients, "<RecipientList/>", "Empty recipient list", 417, false},
        {"no recipient list", kRecipients, "", "Empty recipient list", 417, false},
        {"no sender", kSender, "", "pSender", 421, false},
        {"sender without name", kSender, R"(<Sender email="a@b.c"/>)", "pSenderAttr", 423, false},
        {"sender without email", kSender, R"(<Sender name="n"/>)", "pSenderAttr", 427, false},
        {"no subject", kSubject, "", "pSubject", 431, false},
        {"subject without value", kSubject, "<Subject/>", "pSubjectAttr", 433, false},
        {"matching charset without name", kCharsets, R"(<Charset enabled="yes" locale=""/>)", "pCharset",
         375, false},
        {"matching charset empty", kCharsets, R"(<Charset enabled="yes" locale="" charset=""/>)",
         "pData && !pData->empty()", 377, false},
        {"no agent", agentTag(), "<NoAgent>", "pEmailAgentList && !pEmailAgentList->empty()", 189, false,
         "</EmailAgent>", "</NoAgent>"},
        {"agent without lib", agentTag(), "<EmailAgent>", "pLibAttr && pLibAttr->value()", 193, false},
        {"agent with empty lib", agentTag(), R"(<EmailAgent lib="">)", "pLibAttr && pLibAttr->value()", 193,
         false},
        {"group without message", "<Message>Host %host% is %sev%</Message>", "", "pMessage", 0, false},
        {"event without id", R"(<Event id="8" enabled="yes"/>)", R"(<Event enabled="yes"/>)", "pID", 0,
         false},
        {"event id not a number", R"(<Event id="8" enabled="yes"/>)", R"(<Event id="eight" enabled="yes"/>)",
         "Could not perform the cast from the value to the specific type", 0, false},
        {"invalid sender address", kSender, R"(<Sender name="n" email="a@b..c"/>)",
         "double-dot found in domain name", 0, true},
        {"agent library missing", agentTag(), R"(<EmailAgent lib="/nonexistent/libagent.so">)",
         "Opening of module /nonexistent/libagent.so failed with error ", 0, true},
        {"library without sendEmail", agentTag(), std::string(R"(<EmailAgent lib=")") + NO_AGENT_PATH + R"(">)",
         "Could not obtain address for sendEmail", 0, true},
    };
    for (const FaultRow& row : rows) {
        SCOPED_TRACE(row.what);
        ReportingChannel channel;
        std::string xml = replaced(baseConfig(), row.from, row.to);
        if (!row.from2.empty()) xml = replaced(xml, row.from2, row.to2);
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

TEST(Configure, AValidConfigurationFillsEveryMember) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", "en_GB");
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(baseConfig())));
    EXPECT_TRUE(channel.reports.empty());
    ASSERT_EQ(channel.recipients().size(), 2u);
    EXPECT_EQ(channel.recipients()[0].asPlainString(false), "ops@example.com");
    EXPECT_EQ(channel.recipients()[1].asPlainString(false), "oncall@example.org");
    EXPECT_EQ(channel.sender().asPlainString(false), "alerts@example.com");
    EXPECT_EQ(channel.sender_name().str(), "Alerter");
    EXPECT_EQ(channel.subject().str(), "Alert");
    EXPECT_EQ(channel.charset().str(), "UTF-8");
    EXPECT_STREQ(channel.locale(), "en_GB");
    EXPECT_EQ(channel.token_expression().str(), "%host%|%sev%+");
    ASSERT_EQ(channel.tokens().size(), 2u);
    EXPECT_TRUE(channel.tokens().at("%host%").first);
    EXPECT_EQ(channel.tokens().at("%sev%").second, "HIGH");
    EXPECT_FALSE(channel.tokens().at("%sev%").first);
    ASSERT_EQ(channel.event_groups().size(), 2u);
    EXPECT_EQ(channel.event_groups().at(7).message, channel.event_groups().at(8).message)
        << "events of one group share one template";
    EXPECT_EQ(channel.event_groups().at(7).message->str(), "Host %host% is %sev%");
    const auto& headers = channel.event_groups().at(7).extra_headers;
    ASSERT_EQ(headers.size(), 2u);
    EXPECT_EQ(*headers.at("X-Group").default_, "g1");
    EXPECT_EQ(headers.at("X-Host").xpath->text(), "/event/host");
    EXPECT_NE(channel.send_function(), nullptr);
    EXPECT_EQ(channel.agent_parameters().at("mode"), "record");
}

TEST(Configure, CharsetIsChosenByLocalePrefix) {
    struct Row {
        const char* tamLang;
        const char* language;
        const char* charsets;
        const char* expected;
    };
    const Row rows[] = {
        {nullptr, "fr_FR", R"(<Charset enabled="yes" locale="fr" charset="ISO-8859-15"/>)", "ISO-8859-15"},
        {nullptr, "fr_FR", R"(<Charset enabled="yes" locale="FR" charset="ISO-8859-15"/>)", "UTF-8"},
        {nullptr, "fr_FR", R"(<Charset enabled="no" locale="fr" charset="ISO-8859-15"/>)", "UTF-8"},
        {"de_DE.UTF-8", "fr_FR",
         R"(<Charset enabled="yes" locale="fr" charset="ISO-8859-15"/><Charset enabled="yes" locale="de" charset="ISO-8859-1"/>)",
         "ISO-8859-1"},
        {nullptr, nullptr, R"(<Charset enabled="yes" locale="" charset="KOI8-R"/>)", "KOI8-R"},
        {nullptr, nullptr, R"(<Charset enabled="yes" locale="x" charset="KOI8-R"/>)", "UTF-8"},
        {"", "ru", R"(<Charset enabled="yes" locale="ru" charset="KOI8-R"/>)", "KOI8-R"},
        {nullptr, "fr_FR",
         R"(<Charset enabled="yes" locale="fr_FR" charset="ISO-8859-15"/><Charset enabled="yes" locale="fr" charset="ISO-8859-1"/>)",
         "ISO-8859-15"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.charsets);
        ScopedEnv tam("TAM_LANG", row.tamLang), language("LANGUAGE", row.language);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(replaced(baseConfig(), kCharsets, row.charsets))));
        EXPECT_EQ(channel.charset().str(), row.expected);
    }
}

TEST(Configure, EnvironmentLocaleIsCutTo63Bytes) {
    const std::string longLocale(80, 'f');
    ScopedEnv tam("TAM_LANG", longLocale.c_str());
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(baseConfig())));
    EXPECT_EQ(std::string(channel.locale()), longLocale.substr(0, 63));
}

TEST(Configure, QuirksThatAreKept) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    // Tokens a, a broken one, and b: the broken one keeps its alternative.
    const std::string tokens = R"(<Token name="a" xpath="/e/a"/>
      <Token name="broken" xpath="///["/>
      <Token name="b" default="B"/>
      <Token name="a" default="again"/>
      <Token default="nameless"/>)";
    std::string xml = replaced(baseConfig(), kTokens, tokens);
    xml = replaced(xml, "<Message>Host %host% is %sev%</Message>", "<Message>%a%</Message>");
    // The same header in the defaults and in the group: the defaults win.
    xml = replaced(xml, R"(<Header name="X-Group" default="g1"/>)",
                   R"(<Header name="X-Host" default="group" xpath="/other"/><Header name="X-Group" default="g1"/><Header name="X-Group" default="second"/>)");
    // A second group naming id 7 again.
    xml = replaced(xml, "<EmailAgent", R"(<EventGroup enabled="yes"><Message>second</Message>
      <Event id="7" enabled="yes"/><Event id="9" enabled="yes"/><Event id="10" enabled="no"/></EventGroup>
      <EventGroup enabled="no"><Message>off</Message><Event id="11" enabled="yes"/></EventGroup>
      <EmailAgent)");
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(xml)));

    // Every token read far enough to have a name adds its alternative, the repeated one too.
    EXPECT_EQ(channel.token_expression().str(), "%a%|%broken%|%b%|%a%+");
    EXPECT_EQ(channel.tokens().size(), 2u);
    EXPECT_FALSE(channel.tokens().at("%a%").second.size()) << "the first definition stays";

    const auto& headers = channel.event_groups().at(7).extra_headers;
    EXPECT_EQ(*headers.at("X-Host").default_, "unknown");
    EXPECT_EQ(headers.at("X-Host").xpath->text(), "/event/host");
    EXPECT_EQ(*headers.at("X-Group").default_, "g1") << "a repeated name keeps its first definition";

    EXPECT_EQ(channel.event_groups().at(7).message->str(), "%a%") << "first group naming an id wins";
    EXPECT_EQ(channel.event_groups().at(9).message->str(), "second");
    EXPECT_EQ(channel.event_groups().count(10), 0u);
    EXPECT_EQ(channel.event_groups().count(11), 0u);

    std::vector<std::string> texts;
    for (const Report& r : channel.reports) {
        EXPECT_EQ(r.severity, "warning");
        texts.push_back(r.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"Error inserting into tokens map",
                                               "Error inserting into event group map"}));
}

TEST(Configure, WithoutUsableTokensGroupsAndAgentAreNotRead) {
    ReportingChannel channel;
    const std::string xml = replaced(baseConfig(), kTokens, R"(<Token name="x" xpath="((("/>)");
    EXPECT_FALSE(channel.do_configure(config(xml)));
    ASSERT_EQ(channel.reports.size(), 1u);
    EXPECT_EQ(channel.reports[0].text, "Error reading tokens during configuration");
    EXPECT_EQ(channel.reports[0].severity, "warning");
    EXPECT_TRUE(channel.event_groups().empty());
    EXPECT_EQ(channel.send_function(), nullptr);
    EXPECT_TRUE(channel.token_expression().empty());
    EXPECT_EQ(channel.recipients().size(), 2u) << "the defaults were read before";
}

TEST(Configure, InvalidTokenExpressionPropagates) {
    ReportingChannel channel;
    const std::string xml = replaced(baseConfig(), kTokens, R"(<Token name="(" default="x"/>)");
    EXPECT_THROW(channel.do_configure(config(xml)), std::runtime_error);
}

TEST(Configure, AgentParameters) {
    ReportingChannel channel;
    const std::string xml = replaced(baseConfig(), R"(<Param name="mode" value="record"/>)",
                                     R"(<Param name="a" value="1"/><Param name="a" value="2"/>
                                        <Param name="b"/><Param name="c" value=""/><Param value="4"/>
                                        <Param name="d" value="5"/>)");
    ASSERT_TRUE(channel.do_configure(config(xml)));
    EXPECT_EQ(channel.agent_parameters(), (std::map<std::string, std::string>{{"a", "1"}, {"d", "5"}}));
    std::vector<std::string> texts;
    for (const Report& r : channel.reports) texts.push_back(r.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"pName && pValue", "Empty value", "pName && pValue"}));

    ReportingChannel bare;
    ASSERT_TRUE(bare.do_configure(config(replaced(baseConfig(), R"(<Param name="mode" value="record"/>)", ""))));
    EXPECT_TRUE(bare.agent_parameters().empty());
    EXPECT_NE(bare.send_function(), nullptr);
}

TEST(Configure, NothingIsRolledBackAndReconfigurationAdds) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    ReportingChannel channel;
    const std::string broken = replaced(baseConfig(), kSubject, "");
    EXPECT_THROW(channel.do_configure(config(broken)), Osk::ConfigException);
    EXPECT_EQ(channel.recipients().size(), 2u);
    EXPECT_EQ(channel.sender_name().str(), "Alerter");

    ASSERT_TRUE(channel.do_configure(config(baseConfig())));
    EXPECT_EQ(channel.recipients().size(), 4u) << "recipients are appended on every configuration";

    channel.do_shutdown();
    EXPECT_TRUE(channel.tokens().empty());
    EXPECT_TRUE(channel.event_groups().empty());
    EXPECT_TRUE(channel.agent_parameters().empty());
    EXPECT_TRUE(channel.recipients().empty());
    EXPECT_TRUE(channel.subject().empty());
    EXPECT_TRUE(channel.sender_name().empty());
    EXPECT_TRUE(channel.charset().empty());
    EXPECT_TRUE(channel.sender()) << "the sender address is kept";

    ASSERT_TRUE(channel.do_configure(config(replaced(baseConfig(), kCharsets, ""))));
    EXPECT_TRUE(channel.charset().empty()) << "not reset to UTF-8 after a shutdown";
}

TEST(Configure, AgentLibraryIsOpenedOnce) {
    ReportingChannel a, b;
    ASSERT_TRUE(a.do_configure(config(baseConfig())));
    ASSERT_TRUE(b.do_configure(config(baseConfig())));
    EXPECT_EQ(a.send_function(), b.send_function());
}

// Names written into the mail as they stand must not break or add header lines.
TEST(Configure, NamesThatCouldBreakTheHeaderAreRefused) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    const std::string charset = R"(<Charset enabled="yes" locale="" charset="@"/>)";
    const std::string channelWide = R"(<Header name="@" xpath="/event/host" default="unknown"/>)";
    const std::string group = R"(<Header name="@" default="g1"/>)";
    struct Row {
        const std::string* where;  // fragment whose "@" takes the name
        std::string from;          // what the fragment replaces
        const char* name;          // as written in the XML
        const char* refusal;       // message prefix, or null when accepted
    };
    const std::string hostHeader = R"(<Header name="X-Host" xpath="/event/host" default="unknown"/>)";
    const std::string groupHeader = R"(<Header name="X-Group" default="g1"/>)";
    const char* const badCharset = "Invalid charset name [[ ";
    const char* const badHeader = "Invalid header name [[ ";
    const Row rows[] = {
        {&charset, kCharsets, "ISO-8859-15", nullptr},
        {&charset, kCharsets, "Shift_JIS", nullptr},
        {&charset, kCharsets, "x-mac-roman", nullptr},
        {&charset, kCharsets, "UTF-8&#13;", badCharset},
        {&charset, kCharsets, "UTF-8&#10;Bcc: x@y.z", badCharset},
        {&charset, kCharsets, "ISO 8859-1", badCharset},
        {&charset, kCharsets, "utf-8&quot;", badCharset},
        {&charset, kCharsets, "a;b=c", badCharset},
        {&charset, kCharsets, "UTF-8?B?", badCharset},
        {&charset, kCharsets, "K\xC3\x96I8", badCharset},
        {&channelWide, hostHeader, "X-Ticket_Id.2", nullptr},
        {&group, groupHeader, "X-A", nullptr},
        {&channelWide, hostHeader, "X-Host&#10;Bcc", badHeader},
        {&group, groupHeader, "X-Group&#13;&#10;Bcc: x@y.z", badHeader},
        {&group, groupHeader, "X Group", badHeader},
        {&group, groupHeader, "X-Group:", badHeader},
        {&channelWide, hostHeader, "X-Höst", badHeader},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ReportingChannel channel;
        const std::string xml = replaced(baseConfig(), row.from, replaced(*row.where, "@", row.name));
        if (row.refusal == nullptr) {
            EXPECT_TRUE(channel.do_configure(config(xml)));
            continue;
        }
        try {
            channel.do_configure(config(xml));
            ADD_FAILURE() << "accepted";
        } catch (const Osk::ConfigException& e) {
            EXPECT_EQ(std::string(e.what()).rfind(row.refusal, 0), 0u) << e.what();
        }
    }
}
