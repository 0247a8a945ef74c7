// The agents as the channel opens them; their exceptions must reach the host as Tamtk::Exception.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <sstream>

#include "Osk/EmailAgent.h"
#include "SmtpTestUtil.h"
#include "Toolkit/ComponentLoader.h"

using AgentTest::contains;
using AgentTest::TempDir;
typedef std::map<std::string, std::string> Params;

namespace {

// Closed with the object, unlike the channel's, which keeps its agents.
struct Plugin : Tamtk::Loader {
    explicit Plugin(const char* path) : Tamtk::Loader(path, RTLD_NOW | RTLD_LOCAL) {}

    // "" when sendEmail returned, else "kept: " or "lost: " and the
    // exception as the host prints it.
    std::string send(const std::string& message, const Params& params) const {
        const Osk::EmailChannel::ToList to = {Tamnet::EmailAddr("ops@example.org")};
        try {
            reinterpret_cast<Osk::EmailChannel::SendEmailFn*>(getAddr("sendEmail"))(
                Tamnet::EmailAddr("alerts@example.org"), to, message.c_str(), params);
        } catch (const Tamtk::Exception& e) {
            std::ostringstream out;
            out << (Osk::EmailChannel::alertKept(std::current_exception()) ? "kept: " : "lost: ")
                << e;
            return out.str();
        }
        return "";
    }
};

}  // namespace

TEST(AgentPlugins, SmtpPluginUnloadsCleanlyWhileRetrying) {
    TempDir dir;
    // Nothing listens: the retry thread keeps trying.
    const std::string url = "smtp://127.0.0.1:" + std::to_string(AgentTest::freePort());
    const Params params = {{"url", url}, {"spool", dir / "spool"}, {"timeout", "5"}};
    {
        Plugin unloaded(SMTP_AGENT);
        EXPECT_TRUE(contains(unloaded.send("x\n", params), "kept in the spool"));
    }
    EXPECT_EQ(AgentTest::listDir(dir / "spool/new").size(), 1u);
}

// Held mail is answered as kept, and goes out when the library is unloaded.
TEST(AgentPlugins, DigestPluginSendsWhatItHeldWhenUnloaded) {
    TempDir dir;
    const Params params = {{"agent", MAILDIR_AGENT},
                           {"burst", "1"},
                           {"window", "600"},
                           {"hold", dir / "hold"},
                           {"path", dir / "Maildir"}};
    {
        Plugin unloaded(DIGEST_AGENT);
        EXPECT_EQ(unloaded.send("To: x\nSubject: one\n\n.\n", params), "");
        for (const char* body : {"two", "three"}) {
            const std::string answer =
                unloaded.send(std::string("To: x\nSubject: ") + body + "\n\n.\n", params);
            EXPECT_TRUE(contains(answer, "kept: Digest agent: the alert is held in")) << answer;
        }
        EXPECT_EQ(AgentTest::listDir(dir / "Maildir/new").size(), 1u);
        EXPECT_EQ(AgentTest::listDir(dir / "hold/new").size(), 2u);
    }
    const auto files = AgentTest::listDir(dir / "Maildir/new");
    ASSERT_EQ(files.size(), 2u);
    const std::string digest = AgentTest::readFile(dir / ("Maildir/new/" + files[1]));
    EXPECT_EQ(
        AgentTest::missingFrom(digest, {"\nSubject: =?UTF-8?B?RGlnZXN0IG9mIDIgYWxlcnRz?=\n",
                                        "message/rfc822\n\nTo: x\nSubject: two\n\n.\n\n--",
                                        "message/rfc822\n\nTo: x\nSubject: three\n\n.\n\n--"}),
        "")
        << digest;
    EXPECT_TRUE(AgentTest::listDir(dir / "hold/new").empty());
}
