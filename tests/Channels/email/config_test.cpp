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
const std::string kAgent = std::string(R"(<EmailAgent lib=")") + TEST_AGENT_PATH +
                           R"("><Param name="mode" value="record"/></EmailAgent>)";

std::string with(const std::string& from, const std::string& to) {
    return replaced(baseConfig(), from, to);
}

std::string charset(const std::string& name) {
    return with(kCharsets, R"(<Charset enabled="yes" locale="" charset=")" + name + "\"/>");
}

std::string header(const char* which, const std::string& name) {
    return with(std::string("name=\"") + which + "\"", "name=\"" + name + "\"");
}

std::string limits(const std::string& attributes) {
    return with("</Default>", "<Limits " + attributes + "/></Default>");
}

std::string recipient(const std::string& address) {
    return with(R"(<Recipient value="ops@example.com"/>)",
                "<Recipient value=\"" + address + "\"/>");
}

std::string sender(const std::string& address) {
    return with(R"(email="alerts@example.com")", "email=\"" + address + "\"");
}

}  // namespace

// Refusals say why, the channel's own with their line; a null message: accepted. Names
// written into the mail as they stand must not break or add a header line.
TEST(Configure, EveryFaultHasItsText) {
    struct Row {
        std::string xml;
        const char* message;
        int line = 0;
    };
    const Row rows[] = {
        {replaced(with("<Default>", "<Defaults>"), "</Default>", "</Defaults>"), "p && !p->empty()",
         449},
        {with(kRecipients, "<RecipientList><Recipient/></RecipientList>"), "pRecipientList", 396},
        {with(kRecipients, "<RecipientList/>"), "Empty recipient list", 417},
        {with(kRecipients, ""), "Empty recipient list", 417},
        {with(kSender, ""), "pSender", 421},
        {with(kSender, R"(<Sender email="a@b.c"/>)"), "pSenderAttr", 423},
        {with(kSender, R"(<Sender name="n"/>)"), "pSenderAttr", 427},
        {with(kSubject, ""), "pSubject", 431},
        {with(kSubject, "<Subject/>"), "pSubjectAttr", 433},
        {with(kCharsets, R"(<Charset enabled="yes" locale=""/>)"), "pCharset", 375},
        {charset(""), "pData && !pData->empty()", 377},
        {with(kAgent, ""), "pEmailAgentList && !pEmailAgentList->empty()", 189},
        {with(kAgent, "<EmailAgent/>"), "pLibAttr && pLibAttr->value()", 193},
        {with("<Message>Host %host% is %sev%</Message>", ""), "pMessage"},
        {with(R"(<Event id="8" enabled="yes"/>)", R"(<Event enabled="yes"/>)"), "pID"},
        {with(R"(<Event id="8")", R"(<Event id="eight")"),
         "Could not perform the cast from the value to the specific type"},
        {with(kTokens, R"(<Token name="(" default="x"/>)"), "Unmatched marking parenthesis"},
        {sender("a@b..c"), "double-dot found in domain name"},
        {with(kAgent, R"(<EmailAgent lib="/nonexistent/libagent.so"/>)"),
         "Opening of module /nonexistent/libagent.so failed with error "},
        {with(kAgent, std::string(R"(<EmailAgent lib=")") + NO_AGENT_PATH + "\"/>"),
         "Could not obtain address for sendEmail"},
        {charset("x-mac-roman"), nullptr},
        {charset("UTF-8&#10;Bcc: x@y.z"), "Invalid charset name [[ "},
        {charset("ISO 8859-1"), "Invalid charset name [[ "},
        {charset("utf-8&quot;"), "Invalid charset name [[ "},
        {charset("UTF-8?B?"), "Invalid charset name [[ "},
        {charset("K\xC3\x96I8"), "Invalid charset name [[ "},
        {header("X-Host", "X-Ticket_Id.2"), nullptr},
        {header("X-Group", "X-A"), nullptr},
        {header("X-Group", "X-Group&#13;&#10;Bcc: x@y.z"), "Invalid header name [[ "},
        {header("X-Group", "X Group"), "Invalid header name [[ "},
        {header("X-Group", "X-Group:"), "Invalid header name [[ "},
        {header("X-Host", "X-Höst"), "Invalid header name [[ "},
        {recipient("user@exa&#10;mple.com"), "Invalid characters in domain name"},
        {sender("user&#13;@example.com"), "Invalid character in local part"},
        {recipient("us&#127;er@example.com"), "Invalid character in local part"},
        {sender("user@example.com&#10;Bcc: x@y.org"), "Invalid character in local part"},
        {limits("stylesheet_seconds='0'"), "Invalid Limits/@stylesheet_seconds [[ 0 ]]"},
        {limits("stylesheet_seconds='3600.001'"), "Invalid Limits/@stylesheet_seconds"},
        {limits("stylesheet_seconds='1,5'"), "Invalid Limits/@stylesheet_seconds [[ 1,5 ]]"},
        {limits("stylesheet_seconds='.5'"), "Invalid Limits/@stylesheet_seconds"},
        {limits("stylesheet_output_bytes='1M'"), "Invalid Limits/@stylesheet_output_bytes [[ 1M"},
        {limits("stylesheet_output_bytes='1073741825'"), "Invalid Limits/@stylesheet_output_bytes"},
        {limits("stylesheet_second='2'"), "Unknown attribute [[ stylesheet_second ]] of Limits"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message ? row.message : row.xml);
        ReportingChannel channel;
        std::string refusal;
        try {
            EXPECT_TRUE(channel.do_configure(config(row.xml)));
            EXPECT_EQ(row.message, nullptr) << "accepted";
            continue;
        } catch (const Osk::ConfigException& e) {
            refusal = e.what();
            if (row.line != 0) {
                EXPECT_EQ(e.location().line, row.line);
                EXPECT_STREQ(e.location().file.c_str(), "email_channel");
                EXPECT_NE(std::string(e.location().function.c_str()).find("Osk::email_channel::"),
                          std::string::npos);
            }
        } catch (const Tamtk::Exception& e) {
            EXPECT_EQ(row.line, 0) << "expected a configuration fault, got: " << e.what();
            refusal = e.what();
        } catch (const std::exception& e) {
            refusal = e.what();
        }
        ASSERT_NE(row.message, nullptr) << "refused: " << refusal;
        EXPECT_EQ(refusal.rfind(row.message, 0), 0u) << refusal;
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
    const auto only = [](const std::string& locale, const char* enabled = "yes",
                         const char* charset = "KOI8-R") {
        return std::string("<Charset enabled=\"") + enabled + "\" locale=\"" + locale +
               "\" charset=\"" + charset + "\"/>";
    };
    const Row rows[] = {
        {nullptr, "fr_FR", only("fr", "yes", "ISO-8859-15"), "ISO-8859-15"},
        {nullptr, "fr_FR", only("FR", "yes", "ISO-8859-15"), "UTF-8"},
        {nullptr, "fr_FR", only("fr", "no", "ISO-8859-15"), "UTF-8"},
        {"de_DE.UTF-8", "fr_FR", only("fr") + only("de", "yes", "ISO-8859-1"), "ISO-8859-1"},
        {nullptr, nullptr, only(""), "KOI8-R"},
        {nullptr, nullptr, only("x"), "UTF-8"},
        {"", "ru", only("ru"), "KOI8-R"},
        {nullptr, "fr_FR", only("fr_FR") + only("fr", "yes", "ISO-8859-1"), "KOI8-R"},
        // The environment's locale is cut to 63 bytes.
        {longLocale.c_str(), nullptr, only(longLocale.substr(0, 63)), "KOI8-R"},
        {longLocale.c_str(), nullptr, only(longLocale.substr(0, 64)), "UTF-8"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.charsets);
        ScopedEnv tam("TAM_LANG", row.tamLang), language("LANGUAGE", row.language);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(with(kCharsets, row.charsets))));
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
    std::string xml = replaced(with(kTokens, tokens), "<Message>Host %host% is %sev%</Message>",
                               "<Message>%a%</Message>");
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

TEST(Configure, NothingIsRolledBackAndReconfigurationAdds) {
    ReportingChannel channel;
    EXPECT_THROW(channel.do_configure(config(with(kSubject, ""))), Osk::ConfigException);
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

    ASSERT_TRUE(channel.do_configure(config(with(kCharsets, ""))));
    channel.do_log(event(7, "<event/>"));
    ASSERT_EQ(agent.count(), 2u);
    EXPECT_EQ(agent.recipients(1), "ops@example.com;oncall@example.org;");
    EXPECT_NE(agent.message(1).find("charset=\"\""), std::string::npos)
        << "not reset to UTF-8 after a shutdown";
}
