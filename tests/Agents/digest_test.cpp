#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "AgentTestSupport.h"
#include "Agents/digest/DigestAgent.h"

using namespace Osk::EmailAgents;
using AgentTest::listDir;
using AgentTest::TempDir;

// A refused digest stays held, the next mail reports it, and the next window sends it.
TEST(DigestAgent, ARefusedDigestStaysHeldAndIsSentLater) {
    TempDir dir;
    AgentTest::writeFile(dir / "mail", "a file where the Maildir should be");
    DigestAgent agent(DigestSettings::fromParams({{"agent", MAILDIR_AGENT},
                                                  {"burst", "0"},
                                                  {"window", "0.2"},
                                                  {"hold", dir / "hold"},
                                                  {"path", dir / "mail"},
                                                  {"fsync", "no"}}));
    const Tamnet::EmailAddr from("alerts@example.org");
    const Osk::EmailChannel::ToList to = {Tamnet::EmailAddr("ops@example.org")};
    agent.send(from, to, "Subject: one\n\n1\n");
    agent.send(from, to, "Subject: two\n\n2\n");
    std::this_thread::sleep_for(
        std::chrono::milliseconds(400));  // the window ends, the digest fails
    std::string error;
    try {
        agent.send(from, to, "Subject: three\n\n3\n");
    } catch (const Tamtk::Exception& e) {
        error = e.what();
    }
    EXPECT_NE(error.find("a file of that name is in the way"), std::string::npos) << error;
    EXPECT_EQ(listDir(dir / "hold/new").size(), 3u);

    std::remove((dir / "mail").c_str());
    ASSERT_TRUE(AgentTest::waitFor([&] { return agent.held() == 0; }, 30));
    const std::vector<std::string> sent = listDir(dir / "mail/new");
    ASSERT_EQ(sent.size(), 1u);
    const std::string digest = AgentTest::readFile(dir / ("mail/new/" + sent[0]));
    for (const char* part : {"\n\nSubject: one\n\n1\n\n--", "\n\nSubject: two\n\n2\n\n--",
                             "\n\nSubject: three\n\n3\n\n--"}) {
        EXPECT_NE(digest.find(part), std::string::npos) << part << " in " << digest;
    }
    EXPECT_TRUE(listDir(dir / "hold/new").empty());
}
