// Token stylesheets that read files, recurse without end, run too long or
// write too much, one row each: the token's rendering fails with a critical
// report that says why, the mail still goes out with the message cut at that
// token, and the events around it arrive. The bounds come from Limits.

#include <gtest/gtest.h>

#include "channel_fixture.h"
#include "tamtk/XmlToolkit/XmlTestSupport.h"

using namespace testing_support;

namespace {

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

TEST(HostileStylesheets, EachRowFailsClearlyAndNothingIsLost) {
    const std::string secret = "SECRET-51ab";
    xmltest::TempDir dir;
    const std::string secretFile = dir.write("secret.txt", secret);
    const std::string other =
        dir.write("other.xsl",
                  "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
                  "<xsl:template match='/'>" +
                      secret + "</xsl:template></xsl:stylesheet>");
    struct Row {
        const char* name;
        std::string limits;  // the Limits element
        std::string body;    // the token's stylesheet
        const char* reason;  // part of the critical report; null: none
        std::string text;    // the mail's body
    };
    const std::string cut = "Host h: d / ";
    const Row rows[] = {
        {"reads a local file", "",
         "<xsl:template match='/'><xsl:copy-of select=\"document('" + secretFile +
             "')\"/></xsl:template>",
         "denied", cut},
        // Refused when the configuration is read: the token is left out, so
        // its placeholder cuts the message where a failed token does.
        {"imports a file", "", "<xsl:import href='" + other + "'/>", nullptr, "Host h: d"},
        {"recurses without end", "",
         "<xsl:template match='/'><xsl:apply-templates select='/'/></xsl:template>",
         "infinite template recursion", cut},
        {"runs too long", "<Limits stylesheet_seconds='0.05'/>", branchingRecursion(40),
         "longer than its bound of 0.050 s", cut},
        {"writes 2 MiB", "", doubledString(17), "output passed its bound of 1048576 bytes", cut},
        {"writes 32 bytes of 32", "<Limits stylesheet_output_bytes='32'/>", doubledString(1),
         nullptr, cut + "0123456789abcdef0123456789abcdef / end"},
        {"writes 32 bytes of 31", "<Limits stylesheet_output_bytes='31'/>", doubledString(1),
         "output passed its bound of 31 bytes", cut},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(config(
            replaced(hostileConfig("Host %host%: %detail% / %s% / end", stylesheetToken(row.body)),
                     "</Default>", row.limits + "</Default>"))));
        const Outcome outcome =
            deliverBetween(channel, "<event><host>h</host><detail>d</detail></event>");
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

TEST(HostileStylesheets, BoundsOutOfRangeAreConfigurationFaults) {
    const std::pair<const char*, const char*> rows[] = {
        {"stylesheet_seconds='0'", "Invalid Limits/@stylesheet_seconds [[ 0 ]]"},
        {"stylesheet_seconds='3600.001'", "Invalid Limits/@stylesheet_seconds"},
        {"stylesheet_seconds='1,5'", "Invalid Limits/@stylesheet_seconds [[ 1,5 ]]"},
        {"stylesheet_seconds='.5'", "Invalid Limits/@stylesheet_seconds"},
        {"stylesheet_output_bytes='1M'", "Invalid Limits/@stylesheet_output_bytes [[ 1M ]]"},
        {"stylesheet_output_bytes='1073741825'", "Invalid Limits/@stylesheet_output_bytes"},
        {"stylesheet_second='2'", "Unknown attribute [[ stylesheet_second ]] of Limits"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.first);
        ReportingChannel channel;
        const std::string limits = std::string("<Limits ") + row.first + "/></Default>";
        try {
            channel.do_configure(config(replaced(baseConfig(), "</Default>", limits)));
            ADD_FAILURE() << "accepted";
        } catch (const Osk::ConfigException& e) {
            EXPECT_EQ(std::string(e.what()).rfind(row.second, 0), 0u) << e.what();
        }
    }
}
