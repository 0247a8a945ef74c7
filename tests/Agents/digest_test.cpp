#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "AgentTestSupport.h"
#include "Agents/digest/DigestAgent.h"
#include "Toolkit/Abi.h"

using namespace Osk::EmailAgents;
using AgentTest::listDir;
using AgentTest::TempDir;

namespace {

// The stand-in agent the digest agent delivers through, told how to answer.
void* const _fake = dlopen(FAKE_AGENT, RTLD_LAZY);

template <class F>
F* _fn(const char* name) {
    return reinterpret_cast<F*>(dlsym(_fake, name));
}

// "delivered", or "kept: " or "lost: " as the contract reads the answer, and its text.
std::string _outcome(const std::function<void()>& send) {
    try {
        send();
    } catch (...) {
        const bool kept = Osk::EmailChannel::alertKept(std::current_exception());
        return (kept ? "kept: " : "lost: ") + Tamtk::internal::abi::current_exception();
    }
    return "delivered";
}

}  // namespace

// Held mail leaves the hold once the delivering agent delivered or kept it,
// and is never sent again; otherwise it stays held, is tried each window,
// and the next mail tells so as kept: no answer counts a held alert lost.
TEST(DigestAgent, HeldMailLeavesTheHoldOnlyWhenDeliveredOrKept) {
    const struct {
        const char* answer;  // of the delivering agent
        bool leaves;
    } rows[] = {
        {"delivered", true}, {"kept", true}, {"lost", false}, {"both", false}, {"std", false}};
    const auto calls = _fn<std::size_t()>("testAgentCallCount");
    const Tamnet::EmailAddr from("alerts@example.org");
    const Osk::EmailChannel::ToList to = {Tamnet::EmailAddr("ops@example.org")};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.answer);
        TempDir dir;
        DigestAgent agent(DigestSettings::fromParams({{"agent", FAKE_AGENT},
                                                      {"burst", "0"},
                                                      {"window", "0.2"},
                                                      {"hold", dir / "hold"},
                                                      {"fail", row.answer}}));
        const std::size_t before = calls();
        std::vector<std::string> answers;
        for (const std::string subject : {"one", "two"}) {
            answers.push_back(_outcome(
                [&] { agent.send(from, to, ("Subject: " + subject + "\n\nx\n").c_str()); }));
            EXPECT_EQ(answers.back().rfind("kept: Digest agent: the alert is held in", 0), 0u);
        }
        // The window's digest, then one window more.
        ASSERT_TRUE(AgentTest::waitFor([&] { return calls() == before + 1; }, 30));
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        EXPECT_EQ(listDir(dir / "hold/new").size(), row.leaves ? 0u : 2u);
        EXPECT_EQ(calls() == before + 1, row.leaves) << calls() - before;
        const std::string digest = _fn<const char*(std::size_t)>("testAgentMessage")(calls() - 1);
        EXPECT_EQ(AgentTest::missingFrom(digest, {"Subject: one\n", "Subject: two\n"}), "");
        const std::string next = _outcome([&] { agent.send(from, to, "Subject: three\n\nx\n"); });
        EXPECT_EQ(next.rfind("kept: ", 0), 0u) << next;
        EXPECT_EQ(AgentTest::contains(next, "stays held in"), !row.leaves) << next;
    }
}
