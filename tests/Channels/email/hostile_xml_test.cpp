// Entities in the channel's documents: the parser's own bounds are the
// toolkit's business; here, that the channel reads no file through them and
// that a refused event leaves the events around it untouched.

#include <gtest/gtest.h>

#include "channel_fixture.h"
#include "tamtk/XmlToolkit/XmlTestSupport.h"

using namespace testing_support;

TEST(HostileXml, EntitiesNeitherLeakNorBlowUp) {
    const std::string secret = "SECRET-7d2e";
    xmltest::TempDir dir;
    const std::string entity =
        "<!ENTITY x SYSTEM 'file://" + dir.write("secret.txt", secret) + "'>";
    const std::string base = hostileConfig("Host %host%: %detail%&x;");
    ReportingChannel channel;
    ASSERT_TRUE(channel.do_configure(
        config("<!DOCTYPE Channel [" + entity + "]>" + base.substr(base.find("<Channel>")))));

    Outcome outcome =
        deliverBetween(channel, "<!DOCTYPE event [" + entity +
                                    "]><event><host>h</host><detail>a&x;b</detail></event>");
    ASSERT_TRUE(outcome.sent);
    EXPECT_TRUE(outcome.reports.empty());
    const MailShape shape = readMail(outcome.mail, hostileHeaders(true));
    EXPECT_EQ(shape.problems, std::vector<std::string>());
    EXPECT_EQ(shape.body, "Host h: ab");
    EXPECT_EQ(decodeWords(shape.headers.at("X-Detail")), "ab");
    EXPECT_EQ(outcome.mail.find(secret), std::string::npos);

    std::string quadratic =
        "<!DOCTYPE event [<!ENTITY a '" + std::string(100000, 'x') + "'>]><event><detail>";
    for (int i = 0; i < 10000; ++i) quadratic += "&a;";
    outcome = deliverBetween(channel, quadratic + "</detail></event>");
    EXPECT_NE(outcome.parseError.find("entity references expand to more than"), std::string::npos)
        << outcome.parseError.substr(0, 300);
    EXPECT_FALSE(outcome.sent);
}
