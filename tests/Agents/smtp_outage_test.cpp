// A thousand alerts while the SMTP server goes down and comes back: every one
// must arrive. A message can arrive twice only when the server died after
// taking it and before confirming it; with one stop that is at most one.

#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <map>

#include "SmtpTestUtil.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

TEST(SmtpAgentOutage, EveryMessageArrivesAcrossAServerStop) {
    const int total = 1000;
    TempDir dir;
    SmtpTestServer server;
    SmtpAgent agent(settingsFor(server.url(), {{"spool", dir / "spool"}, {"timeout", "2"}}));

    // The server is killed and restarted from another thread, so the stop
    // may fall in the middle of a transaction.
    std::atomic<int> sent{0};
    std::thread outage([&] {
        waitFor([&] { return sent >= 300; }, 60);
        server.kill();
        waitFor([&] { return sent >= 600; }, 60);
        server.start();
    });
    int spooled = 0;
    for (int i = 0; i < total; ++i) {
        const std::string message = "Message-Id: <" + std::to_string(i) +
                                    "@outage.test>\n\nalert " + std::to_string(i) + "\n";
        const std::string text =
            sendFailure(agent, "alerts@outage.test", {"ops@outage.test"}, message);
        if (!text.empty()) {
            EXPECT_NE(text.find("kept in the spool"), std::string::npos) << text;
            ++spooled;
        }
        ++sent;
    }
    outage.join();
    ASSERT_TRUE(waitFor([&] { return agent.waiting() == 0; }, 30)) << agent.waiting() << " left";

    std::map<int, int> arrivals;
    for (const SmtpTestServer::Message& m : server.messages()) {
        const std::size_t at = m.data.find("alert ");
        ASSERT_NE(at, std::string::npos);
        ++arrivals[std::stoi(m.data.substr(at + 6))];
    }
    int duplicates = 0;
    for (int i = 0; i < total; ++i) {
        EXPECT_GE(arrivals[i], 1) << "message " << i << " was lost";
        duplicates += std::max(0, arrivals[i] - 1);
    }
    EXPECT_GT(spooled, 0) << "the outage went unnoticed";
    EXPECT_LE(duplicates, 1);
    EXPECT_TRUE(listDir(dir / "spool/failed/new").empty());
    std::cout << "outage: " << total << " messages, " << spooled << " spooled during the outage, "
              << duplicates << " delivered twice (server stopped between taking and confirming)"
              << std::endl;
    RecordProperty("spooled", spooled);
    RecordProperty("duplicates", duplicates);
}
