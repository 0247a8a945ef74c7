// The SMTP agent against a real Postfix; skipped, saying why, where Postfix cannot run.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "Agents/common/Spool.h"
#include "SmtpTestUtil.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

namespace {

std::string headers(const std::string& message) {
    return message.substr(0, message.find("\n\n") + 1);
}

std::string body(const std::string& message) {
    const std::size_t end = message.find("\n\n");
    return end == std::string::npos ? "" : message.substr(end + 2);
}

// A complete message as the channel builds it: Postfix adds only trace headers.
std::string alert(const std::string& to, const std::string& bodyText) {
    static int count = 0;
    return "Date: Mon, 23 Nov 2026 10:00:00 +0000\nFrom: Alerts <alerts@example.com>\nTo: <" + to +
           ">\nSubject: =?UTF-8?Q?St=C3=B6rung?=\nMessage-ID: <" + std::to_string(++count) +
           ".test@example.com>\nMIME-Version: 1.0\nContent-Type: text/plain; charset=UTF-8\n"
           "Content-Transfer-Encoding: 8bit\n\n" +
           bodyText;
}

class Postfix : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!PostfixServer::unavailable().empty()) {
            return;
        }
        try {
            server_.reset(
                new PostfixServer({"ops", "oncall", "secure", "kept"}, {"gone@example.test"}));
        } catch (const std::exception& e) {
            startFailure_ = e.what();
        }
    }
    static void TearDownTestSuite() { server_.reset(); }

    void SetUp() override {
        const std::string why = PostfixServer::unavailable();
        if (!why.empty()) {
            GTEST_SKIP() << "no Postfix here: " << why;
        }
        ASSERT_TRUE(server_) << "Postfix did not start: " << startFailure_;
    }

    static std::unique_ptr<PostfixServer> server_;
    static std::string startFailure_;
};

std::unique_ptr<PostfixServer> Postfix::server_;
std::string Postfix::startFailure_;

}  // namespace

// A refused recipient's copy lands in spool/failed with Postfix's reply.
TEST_F(Postfix, DeliversTheMessageAsSentAndFilesARefusedRecipient) {
    TempDir dir;
    SmtpAgent agent(settingsFor(server_->url(), {{"starttls", "no"}, {"spool", dir / "spool"}}));
    std::vector<std::string> bodies = {
        "Disk full on db1.\n",
        ".\n..two dots\n.one dot\nend\n",  // SMTP's dot lines, unstuffed by Postfix
        "\xc3\xa9t\xc3\xa9 \xe2\x9c\x93\n" + std::string(990, 'x') + "\n",
    };
    for (const std::string& b : bodies) {
        const std::string failure =
            sendFailure(agent, "alerts@example.com",
                        {"ops@example.test", "gone@example.test", "oncall@example.test"},
                        alert("ops@example.test", b));
        EXPECT_EQ(missingFrom(failure, {"refused the recipient gone@example.test (550 5.1.1",
                                        "delivered to the other 2 of 3"}),
                  "")
            << failure;
    }
    // Postfix's Maildir names do not keep the order of arrival within a second.
    std::sort(bodies.begin(), bodies.end());
    for (const char* user : {"ops", "oncall"}) {
        const std::vector<std::string> got = server_->mailbox(user, bodies.size(), 20);
        ASSERT_EQ(got.size(), bodies.size()) << user << "\n" << server_->log();
        std::vector<std::string> gotBodies;
        for (const std::string& message : got) {
            gotBodies.push_back(body(message));
            const std::string head = headers(message);
            EXPECT_EQ(missingFrom(head, {"Return-Path: <alerts@example.com>\n",
                                         "Delivered-To: " + std::string(user) + "@example.test\n",
                                         "\nSubject: =?UTF-8?Q?St=C3=B6rung?=\n"}),
                      "")
                << head;
        }
        std::sort(gotBodies.begin(), gotBodies.end());
        EXPECT_EQ(gotBodies, bodies) << user;
    }
    Spool spool(dir / "spool");
    EXPECT_TRUE(spool.pending().empty());
    std::vector<std::string> refusedBodies;
    for (const std::string& name : spool.failed()) {
        SpooledMessage refused;
        std::string reply;
        ASSERT_TRUE(spool.loadFailed(name, refused, reply));
        EXPECT_EQ(refused.to, std::vector<std::string>{"gone@example.test"});
        EXPECT_TRUE(contains(reply, "gone@example.test: 550 5.1.1")) << reply;
        refusedBodies.push_back(body(refused.message));
    }
    std::sort(refusedBodies.begin(), refusedBodies.end());
    EXPECT_EQ(refusedBodies, bodies);
}

// The system store does not know the test certificate: refused, never sent in clear.
TEST_F(Postfix, StartTlsRequiredTrustsOnlyTheConfiguredAuthority) {
    for (const bool withCa : {false, true}) {
        Params params = {{"starttls", "required"}};
        if (withCa) {
            params.emplace("ca_file", Certificate::get().cert);
        }
        SmtpAgent agent(settingsFor(server_->url(), params));
        const std::string failure =
            sendFailure(agent, "alerts@example.com", {"secure@example.test"},
                        alert("secure@example.test", "over TLS\n"));
        EXPECT_TRUE(withCa ? failure.empty() : contains(failure, "certificate")) << failure;
    }
    const std::vector<std::string> got = server_->mailbox("secure", 1, 20);
    ASSERT_EQ(got.size(), 1u) << server_->log();
    EXPECT_TRUE(contains(headers(got[0]), "(using TLS"))
        << "Postfix's Received header names no TLS";
}
