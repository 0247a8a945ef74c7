// Token stylesheets that try to read or write files, reach the network or
// recurse without end, one row each: the token's rendering fails with a
// critical report that says why, the mail still goes out with the message
// cut at that token, and the events around it arrive.

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
         "<xsl:template match='/'><xsl:copy-of select=\"document('" + secretFile + "')\"/></xsl:template>",
         "denied"},
        {"reads /etc/passwd by URL",
         "<xsl:template match='/'><xsl:copy-of select=\"document('file:///etc/passwd')\"/></xsl:template>",
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
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        ReportingChannel channel;
        ASSERT_TRUE(channel.do_configure(
            config(hostileConfig("Host %host%: %detail% / %s% / end", stylesheetToken(row.body)))));
        const Outcome outcome = deliverBetween(channel, "<event><host>h</host><detail>d</detail></event>");
        ASSERT_TRUE(outcome.sent) << "a rendering failure still sends what was rendered";
        const MailShape shape = readMail(outcome.mail, hostileHeaders(true));
        EXPECT_EQ(shape.problems, std::vector<std::string>());
        EXPECT_EQ(shape.body, "Host h: d / ");
        ASSERT_EQ(outcome.reports.size(), 1u);
        EXPECT_EQ(outcome.reports[0].severity, "critical");
        EXPECT_NE(outcome.reports[0].text.find(row.reason), std::string::npos) << outcome.reports[0].text;
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
    const std::string other = dir.write(
        "other.xsl", "<xsl:stylesheet version='1.0' xmlns:xsl='http://www.w3.org/1999/XSL/Transform'>"
                     "<xsl:template match='/'>" + kSecret + "</xsl:template></xsl:stylesheet>");
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(config(hostileConfig(
        "Host %host%: %detail% / %s% / end", stylesheetToken("<xsl:import href='" + other + "'/>")))));
    EXPECT_EQ(channel.tokens().count("%s%"), 0u);
    const Outcome outcome = deliverBetween(channel, "<event><host>h</host><detail>d</detail></event>");
    ASSERT_TRUE(outcome.sent);
    EXPECT_EQ(readMail(outcome.mail, hostileHeaders(true)).body, "Host h: d");
    EXPECT_EQ(outcome.mail.find(kSecret), std::string::npos);
}
