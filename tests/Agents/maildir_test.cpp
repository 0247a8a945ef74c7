#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "AgentTestSupport.h"
#include "Agents/common/AgentException.h"
#include "Agents/maildir/MaildirAgent.h"

using namespace Osk::EmailAgents;
using AgentTest::listDir;
using AgentTest::readFile;
using AgentTest::TempDir;

namespace {

std::string failureOf(const Params& params, const char* message = "To: x\n\nbody\n") {
    try {
        deliverToMaildir(MaildirSettings::fromParams(params), message);
    } catch (const Tamtk::Exception& e) {
        return e.what();
    }
    return "";
}

std::mutex syncedLock;
std::vector<std::string> synced;  // what fsync was called on, in order

}  // namespace

// Records what the agent flushes before it calls the mail safe.
extern "C" int fsync(int fd) {
    char link[64];
    char target[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target);
    {
        std::lock_guard<std::mutex> lock(syncedLock);
        synced.push_back(n > 0 ? std::string(target, static_cast<std::size_t>(n)) : "?");
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

TEST(MaildirAgent, TheFileAndNewAreOnDiskBeforeDeliveryReturnsUnlessFsyncIsOff) {
    for (const std::string fsyncParam : {"yes", "No", ""}) {  // "": left at its default
        TempDir dir;
        Params params = {{"path", dir / "md"}, {"fsync", fsyncParam}};
        if (fsyncParam.empty()) {
            params.erase("fsync");
        }
        {
            std::lock_guard<std::mutex> lock(syncedLock);
            synced.clear();
        }
        ASSERT_EQ(failureOf(params), "");
        std::lock_guard<std::mutex> lock(syncedLock);
        if (fsyncParam == "No") {
            EXPECT_TRUE(synced.empty());
            continue;
        }
        // The file while still in tmp/, then the folder it was renamed into.
        ASSERT_EQ(synced.size(), 2u);
        EXPECT_EQ(synced[0].rfind(dir / "md/tmp/", 0), 0u) << synced[0];
        EXPECT_EQ(synced[1], dir / "md/new");
    }
}

TEST(MaildirAgent, ParametersAreCheckedAndNamedInTheError) {
    struct Case {
        Params params;
        std::vector<std::string> expected;  // all in the message
    };
    const std::vector<Case> cases = {
        {{}, {"\"path\"", "required"}},
        {{{"path", ""}}, {"\"path\"", "empty"}},
        {{{"path", "/tmp/x"}, {"fsync", "sometimes"}}, {"\"fsync\"", "sometimes", "yes or no"}},
    };
    for (const Case& c : cases) {
        const std::string text = failureOf(c.params);
        EXPECT_EQ(AgentTest::missingFrom(text, c.expected), "") << text;
    }
}

// Stored unchanged in a private new/ made on the way; Python's mailbox reads it back.
TEST(MaildirAgent, StoresTheMessageUnchangedWherePythonsMailboxReadsIt) {
    TempDir dir;
    const std::string path = dir / "deep/er/Maildir";
    const std::vector<std::string> messages = {
        "To: <a@b.example>\nFrom: =?UTF-8?B?QWxlcnQ=?=\n <c@d.example>\n\nYm9keQ==\n",
        "To: <a@b.example>\nSubject: =?UTF-8?B?w6k=?=\n\n.\nFrom the start of a line\n..\n",
        "To: <a@b.example>\n\n\xc3\xa9\xff\x01 no final line feed",
        "To: <a@b.example>\r\nX-Crlf: kept as given\r\n\r\n",
    };
    for (std::size_t i = 0; i < messages.size(); ++i) {
        const std::string file = deliverToMaildir(
            MaildirSettings::fromParams({{"path", path}, {"fsync", i % 2 ? "no" : "yes"}}),
            messages[i].c_str());
        EXPECT_EQ(file.substr(0, path.size() + 5), path + "/new/");
    }
    EXPECT_TRUE(listDir(path + "/tmp").empty());
    EXPECT_TRUE(listDir(path + "/cur").empty());
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u) << "mail folders are private";

    // Python strips the two lines the agent puts in front, in the message's own line ending.
    const std::string out = AgentTest::run(
        "/usr/bin/python3 -c 'import mailbox, re, sys\n"
        "box = mailbox.Maildir(sys.argv[1], factory=None, create=False)\n"
        "added = rb\"Message-ID: <[^>]+>(\\r?\\n)Auto-Submitted: auto-generated\\1\"\n"
        "rest = [re.sub(b\"^\" + added, b\"\", box.get_bytes(key)) for key in box.keys()]\n"
        "sys.stdout.buffer.write(b\"|\".join(sorted(rest)))' " +
        path);
    std::vector<std::string> given = messages;
    std::sort(given.begin(), given.end());
    EXPECT_EQ(out, given[0] + "|" + given[1] + "|" + given[2] + "|" + given[3]);
}
