// Token stylesheets that try to read or write files, reach the network,
// recurse without end, run for ever or grow without bound, one row each:
// the token's rendering fails with a critical report that says why, the mail
// still goes out with the message cut at that token, and the events around
// it arrive.

#include <gtest/gtest.h>

#include "hostile_support.h"
#include "tamtk/XmlToolkit/XmlTestSupport.h"

using namespace testing_support;

namespace {

const std::string kSecret = "SECRET-51ab";

std::string stylesheetToken(const std::string& body) {
    return R"(<Token name="s"><xsl:stylesheet version="1.0" xmlns:xsl="http://www.w3.org/1999/XSL/Transform"
        xmlns:exsl="http://exslt.org/common" extension-element-prefixes="exsl">)" +
           body + "</xsl:stylesheet></Token>";
}

// Templates a1 .. a<depth>, each calling the next twice: 2^depth calls.
std::string branchingRecursion(int depth) {
    std::string body;
    for (int i = 1; i < depth; ++i) {
        const std::string next = "<xsl:call-template name='a" + std::to_string(i + 1) + "'/>";
        body +=
            "<xsl:template name='a" + std::to_string(i) + "'>" + next + next + "</xsl:template>";
    }
    return body + "<xsl:template name='a" + std::to_string(depth) +
           "'>x</xsl:template><xsl:template match='/'><xsl:call-template "
           "name='a1'/></xsl:template>";
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

TEST(HostileStylesheets, EachRowFailsClearlyAndNothingIsLost) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    xmltest::TempDir dir;
    xmltest::Listener listener;
    const std::string secretFile = dir.write("secret.txt", kSecret);
    const std::string written = dir.file("written.txt");
    struct Row {
        const char* name;
        std::string body;
        const char* reason;  // part of the critical report
    };
    const Row rows[] = {
        {"reads a local file",
         "<xsl:template match='/'><xsl:copy-of select=\"document('" + secretFile +
             "')\"/></xsl:template>",
         "denied"},
        {"reads /etc/passwd by URL",
         "<xsl:template match='/'><xsl:copy-of "
         "select=\"document('file:///etc/passwd')\"/></xsl:template>",
         "denied"},
        {"writes a file",
         "<xsl:template match='/'><exsl:document href='" + written + "' method='text'>" + kSecret +
             "</exsl:document></xsl:template>",
         "denied"},
        {"reaches the network",
         "<xsl:template match='/'><xsl:copy-of select=\"document('" + listener.url("doc.xml") +
             "')\"/></xsl:template>",
         "denied"},
        {"recurses without end",
         "<xsl:template match='/'><xsl:apply-templates select='/'/></xsl:template>",
         "infinite template recursion"},
        {"calls itself without end",
         "<xsl:template name='r'>x<xsl:call-template name='r'/></xsl:template>"
         "<xsl:template match='/'><xsl:call-template name='r'/></xsl:template>",
         "infinite template recursion"},
        {"branches 40 deep", branchingRecursion(40), "ran longer than its bound of 1.000 s"},
        {"doubles a string 28 times", doubledString(28), "bytes of memory"},
        {"writes 2 MiB", doubledString(17), "output passed its bound of 1048576 bytes"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(
            config(hostileConfig("Host %host%: %detail% / %s% / end", stylesheetToken(row.body)))));
        const Outcome outcome =
            deliverBetween(channel, "<event><host>h</host><detail>d</detail></event>");
        ASSERT_TRUE(outcome.sent) << "a rendering failure still sends what was rendered";
        const MailShape shape = readMail(outcome.mail, hostileHeaders(true));
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(shape.body, "Host h: d / ");
        ASSERT_EQ(outcome.reports.size(), 1u);
        EXPECT_EQ(outcome.reports[0].severity, "critical");
        EXPECT_NE(outcome.reports[0].text.find(row.reason), std::string::npos)
            << outcome.reports[0].text;
        EXPECT_EQ(outcome.mail.find(kSecret), std::string::npos);
        EXPECT_EQ(shape.body.find("root:"), std::string::npos);
    }
    EXPECT_FALSE(xmltest::exists(written));
    EXPECT_EQ(listener.connections(), 0);
}

TEST(HostileStylesheets, AStylesheetThatImportsAFileIsNotLoaded) {
    // Refused when the configuration is read: the token is left out, so its
    // placeholder cuts the message (the documented effect of a token that
    // failed to load), and nothing of the imported file is ever seen.
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    xmltest::TempDir dir;
    const std::string other =
        dir.write("other.xsl",
                  "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
                  "<xsl:template match='/'>" +
                      kSecret + "</xsl:template></xsl:stylesheet>");
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(
        config(hostileConfig("Host %host%: %detail% / %s% / end",
                             stylesheetToken("<xsl:import href='" + other + "'/>")))));
    EXPECT_EQ(channel.tokens().count("%s%"), 0u);
    const Outcome outcome =
        deliverBetween(channel, "<event><host>h</host><detail>d</detail></event>");
    ASSERT_TRUE(outcome.sent);
    EXPECT_EQ(readMail(outcome.mail, hostileHeaders(true)).body, "Host h: d");
    EXPECT_EQ(outcome.mail.find(kSecret), std::string::npos);
}

TEST(HostileStylesheets, BoundsAreConfigurable) {
    ScopedEnv tam("TAM_LANG", nullptr), language("LANGUAGE", nullptr);
    struct Row {
        const char* limits;   // the Limits element
        std::string body;     // the token's stylesheet
        std::size_t bytes;    // what it writes when it runs to its end
        const char* outcome;  // the refusal of the configuration or of the run; null: all rendered
    };
    const Row rows[] = {
        {"<Limits/>", doubledString(14), 16u << 14, nullptr},
        {"<Limits stylesheet_output_bytes='32'/>", doubledString(1), 32, nullptr},
        {"<Limits stylesheet_output_bytes='31'/>", doubledString(1), 32,
         "output passed its bound of 31 bytes"},
        {"<Limits stylesheet_seconds='0.05'/>", branchingRecursion(40), 0,
         "longer than its bound of 0.050 s"},
        {"<Limits stylesheet_seconds='0' />", "", 0, "Invalid Limits/@stylesheet_seconds [[ 0 ]]"},
        {"<Limits stylesheet_seconds='3600.001'/>", "", 0, "Invalid Limits/@stylesheet_seconds"},
        {"<Limits stylesheet_seconds='1,5'/>", "", 0,
         "Invalid Limits/@stylesheet_seconds [[ 1,5 ]]"},
        {"<Limits stylesheet_seconds='.5'/>", "", 0, "Invalid Limits/@stylesheet_seconds"},
        {"<Limits stylesheet_output_bytes='1M'/>", "", 0,
         "Invalid Limits/@stylesheet_output_bytes [[ 1M ]]"},
        {"<Limits stylesheet_output_bytes='1073741825'/>", "", 0,
         "Invalid Limits/@stylesheet_output_bytes"},
        {"<Limits stylesheet_second='2'/>", "", 0,
         "Unknown attribute [[ stylesheet_second ]] of Limits"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.limits);
        ReportingChannel channel;
        const std::string xml = replaced(hostileConfig("[%s%]", stylesheetToken(row.body)),
                                         "</Default>", std::string(row.limits) + "</Default>");
        bool configured = false;
        try {
            configured = channel.do_configure(config(xml));
        } catch (const Osk::ConfigException& e) {
            ASSERT_NE(row.outcome, nullptr) << e.what();
            EXPECT_EQ(std::string(e.what()).rfind(row.outcome, 0), 0u) << e.what();
            continue;
        }
        ASSERT_TRUE(configured);
        const Outcome outcome = deliverBetween(channel, "<event><host>h</host></event>");
        ASSERT_TRUE(outcome.sent);
        const std::string body = readMail(outcome.mail, hostileHeaders(false)).body;
        if (row.outcome == nullptr) {
            EXPECT_EQ(outcome.reports.size(), 0u);
            EXPECT_EQ(body.size(), row.bytes + 2);
        } else {
            ASSERT_EQ(outcome.reports.size(), 1u);
            EXPECT_NE(outcome.reports[0].text.find(row.outcome), std::string::npos)
                << outcome.reports[0].text;
            EXPECT_EQ(body, "[");
        }
    }
}
