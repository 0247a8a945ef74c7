// The agents as the channel sees them: shared libraries opened with dlopen
// and closed again, whose exceptions must reach the host as Tamtk::Exception.
// (The host's own tests drive each agent's deliveries through the channel.)

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <sstream>

#include "Osk/EmailAgent.h"
#include "SmtpTestUtil.h"

using AgentTest::contains;
using AgentTest::TempDir;
using Osk::EmailChannel::ToList;
typedef std::map<std::string, std::string> Params;

namespace {

class Plugin {
public:
    explicit Plugin(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (!handle_) {
            throw std::runtime_error(dlerror());
        }
        send_ = reinterpret_cast<Osk::EmailChannel::SendEmailFn*>(dlsym(handle_, "sendEmail"));
    }
    ~Plugin() {
        if (handle_ && close_) {
            dlclose(handle_);
        }
    }
    // Left open until the process ends, as the channel does.
    void keepLoaded() { close_ = false; }

    // "" when sendEmail returned, else the exception as the host prints it.
    std::string send(const std::string& message, const Params& params) {
        const ToList to = {Tamnet::EmailAddr("ops@example.org")};
        try {
            send_(Tamnet::EmailAddr("alerts@example.org"), to, message.c_str(), params);
        } catch (const Tamtk::Exception& e) {
            std::ostringstream out;
            out << e;
            return out.str();
        }
        return "";
    }

private:
    void* handle_;
    Osk::EmailChannel::SendEmailFn* send_ = nullptr;
    bool close_ = true;
};

}  // namespace

TEST(AgentPlugins, SmtpPluginUnloadsAndExitsCleanlyWhileRetrying) {
    TempDir dir;
    // Nothing listens: the retry thread keeps trying.
    const std::string url = "smtp://127.0.0.1:" + std::to_string(AgentTest::freePort());
    const Params params = {{"url", url}, {"spool", dir / "spool"}, {"timeout", "5"}};
    {
        Plugin unloaded(SMTP_AGENT);
        EXPECT_TRUE(contains(unloaded.send("x\n", params), "kept in the spool"));
    }
    // Loaded again, it finds the spool of its earlier life; at process exit
    // its retry thread is still waiting for the server.
    Plugin kept(SMTP_AGENT);
    kept.keepLoaded();
    EXPECT_TRUE(contains(kept.send("y\n", params), "kept in the spool"));
    EXPECT_EQ(AgentTest::listDir(dir / "spool/new").size(), 2u);
}

TEST(AgentPlugins, DigestPluginNamesItsFaultsAndSendsWhatItHeldWhenUnloaded) {
    TempDir dir;
    const Params params = {{"agent", MAILDIR_AGENT},
                           {"burst", "1"},
                           {"window", "600"},
                           {"hold", dir / "hold"},
                           {"path", dir / "Maildir"}};
    struct Row {
        const char* name;
        const char* value;  // "": left out
        const char* error;
    };
    const Row rows[] = {
        {"burst", "-1", "Digest agent: parameter \"burst\" has the value \"-1\""},
        {"window", "0", "Digest agent: parameter \"window\" has the value \"0\""},
        {"hold", "", "Digest agent: parameter \"hold\" is required"},
        {"agent", "libno_such_agent.so", "Opening of module libno_such_agent.so failed"},
        {"agent", "libtamtk.so", "Could not obtain address for sendEmail"},
        {"colour", "red", "Maildir agent: unknown parameter \"colour\""},  // passed on
    };
    {
        Plugin unloaded(DIGEST_AGENT);
        for (const Row& row : rows) {
            SCOPED_TRACE(row.name);
            Params bad = params;
            bad[row.name] = row.value;
            if (!*row.value) {
                bad.erase(row.name);
            }
            const std::string text = unloaded.send("To: x\n\nbad\n", bad);
            EXPECT_TRUE(contains(text, row.error)) << text;
        }
        for (const char* body : {"one", "two", "three"}) {
            EXPECT_EQ(unloaded.send(std::string("To: x\nSubject: ") + body + "\n\n.\n", params),
                      "");
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
