// Hostile event and configuration documents, one row each. An event is
// either refused when it is read (a clear XmlException; the channel never
// sees it) or rendered into a well-formed mail that shows nothing it should
// not; the events around it always arrive.

#include <gtest/gtest.h>

#include <functional>

#include "hostile_support.h"
#include "tamtk/XmlToolkit/XmlTestSupport.h"

using namespace testing_support;

namespace {

const std::string kSecret = "SECRET-7d2e";
const std::size_t kMB = 1024 * 1024;

std::string repeated(const std::string& piece, std::size_t times) {
    std::string out;
    out.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) out += piece;
    return out;
}

struct Row {
    const char* name;
    std::function<std::string()> event;
    const char* refusal;  // part of the parser's message; null when the event is rendered
    const char* detail;   // the X-Detail value and body text of a rendered event
};

}  // namespace

TEST(HostileEvents, EachRowIsRefusedOrRenderedSafely) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    xmltest::TempDir dir;
    xmltest::Listener listener;
    const std::string secretFile = dir.write("secret.txt", kSecret);
    const std::string dtd = dir.write("ext.dtd", "<!ENTITY leak '" + kSecret +
                                                     "'><!ATTLIST detail x CDATA '" + kSecret + "'>");
    const Row rows[] = {
        {"external entity naming a local file",
         [&] {
             return "<!DOCTYPE event [<!ENTITY x SYSTEM 'file://" + secretFile +
                    "'>]><event><host>h</host><detail>a&x;b</detail></event>";
         },
         nullptr, "ab"},
        {"external entity naming a network URL",
         [&] {
             return "<!DOCTYPE event [<!ENTITY x SYSTEM '" + listener.url("x") +
                    "'>]><event><host>h</host><detail>a&x;b</detail></event>";
         },
         nullptr, "ab"},
        {"external DTD with an entity and a default attribute",
         [&] {
             return "<!DOCTYPE event SYSTEM '" + dtd +
                    "'><event><host>h</host><detail>d</detail></event>";
         },
         nullptr, "d"},
        {"parameter entity pulling in an external DTD",
         [&] {
             return "<!DOCTYPE event [<!ENTITY % p SYSTEM '" + dtd +
                    "'> %p;]><event><host>h</host><detail>d</detail></event>";
         },
         nullptr, "d"},
        {"billion laughs",
         [] {
             std::string doc = "<!DOCTYPE event [<!ENTITY l0 'lol'>";
             for (int i = 1; i <= 10; ++i) {
                 doc += "<!ENTITY l" + std::to_string(i) + " '" +
                        repeated("&l" + std::to_string(i - 1) + ";", 10) + "'>";
             }
             return doc + "]><event><host>h</host><detail>&l10;</detail></event>";
         },
         "", nullptr},
        {"quadratic blowup",
         [] {
             return "<!DOCTYPE event [<!ENTITY a '" + std::string(100000, 'x') +
                    "'>]><event><host>h</host><detail>" + repeated("&a;", 10000) + "</detail></event>";
         },
         "entity references expand to more than", nullptr},
        {"100 MB event",
         [] {
             return "<event><host>h</host><detail>d</detail><blob>" + std::string(100 * kMB, 'x') +
                    "</blob></event>";
         },
         nullptr, "d"},
        {"100 MB attribute", [] { return "<event blob='" + std::string(100 * kMB, 'x') + "'/>"; },
         "AttValue length too long", nullptr},
        {"nesting 100000 deep",
         [] {
             return "<event><host>h</host>" + repeated("<a>", 100000) + repeated("</a>", 100000) +
                    "</event>";
         },
         "Excessive depth in document", nullptr},
        {"nesting 250 deep",
         [] {
             return "<event><host>h</host><detail>d</detail>" + repeated("<a>", 248) +
                    repeated("</a>", 248) + "</event>";
         },
         nullptr, "d"},
    };
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(hostileConfig())));
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Outcome outcome = deliverBetween(channel, row.event());
        if (row.refusal) {
            EXPECT_FALSE(outcome.parseError.empty());
            EXPECT_NE(outcome.parseError.find(row.refusal), std::string::npos)
                << outcome.parseError.substr(0, 300);
            EXPECT_FALSE(outcome.sent);
            continue;
        }
        ASSERT_EQ(outcome.parseError, "");
        ASSERT_TRUE(outcome.sent);
        EXPECT_TRUE(outcome.reports.empty());
        const MailShape shape = readMail(outcome.mail, hostileHeaders(true));
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(shape.body, std::string("Host h: ") + row.detail);
        EXPECT_EQ(decodeWords(shape.headers.at("X-Detail")), row.detail);
        EXPECT_EQ(outcome.mail.find(kSecret), std::string::npos);
    }
    EXPECT_EQ(listener.connections(), 0);
}

TEST(HostileConfiguration, EntitiesAndOversizedDocumentsAreNotRead) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    xmltest::TempDir dir;
    const std::string secretFile = dir.write("secret.txt", kSecret);
    const std::string base = hostileConfig();
    struct ConfigRow {
        const char* name;
        std::string text;
        const char* refusal;  // null: the configuration is read, the entity left unexpanded
    };
    const ConfigRow rows[] = {
        {"template with an external entity",
         "<!DOCTYPE Channel [<!ENTITY x SYSTEM 'file://" + secretFile + "'>]>" +
             replaced(base.substr(base.find("<Channel>")), "<Message>Host %host%: %detail%</Message>",
                      "<Message>Host %host%: %detail%&x;</Message>"),
         nullptr},
        {"quadratic blowup in the template",
         "<!DOCTYPE Channel [<!ENTITY a '" + std::string(100000, 'x') + "'>]>" +
             replaced(base.substr(base.find("<Channel>")), "<Message>Host %host%: %detail%</Message>",
                      "<Message>" + repeated("&a;", 10000) + "</Message>"),
         "entity references expand to more than"},
    };
    for (const ConfigRow& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.refusal) {
            const std::string message = xmltest::xmlFailure([&] { config(row.text); });
            EXPECT_NE(message.find(row.refusal), std::string::npos) << message.substr(0, 300);
            continue;
        }
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(row.text)));
        const Outcome outcome = deliverBetween(channel, "<event><host>h</host></event>");
        ASSERT_TRUE(outcome.sent);
        EXPECT_EQ(outcome.mail.find(kSecret), std::string::npos);
    }
}
