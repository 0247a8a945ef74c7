#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "Agents/common/Spool.h"
#include "Agents/digest/Hold.h"
#include "SmtpTestUtil.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

namespace {

long peakKib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

void sparse(const std::string& path, off_t size) {
    writeFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), size), 0);
}

}  // namespace

// What can lie in new/ besides mail. Nothing of it is read, followed or sent:
// each is moved aside as it is and reported, and the drain returns.
TEST(EnvelopeStore, FilesThatAreNotMailAreMovedAsideUnread) {
    TempDir dir;
    const std::string mail = "X-Spool-From: a@b\nX-Spool-To: c@d\nX-Spool-Queued: 1\n\nsecret\n";
    const std::string target = dir.write("target", mail);
    struct Row {
        const char* name;
        std::function<void(const std::string&)> make;
        const char* why;
        bool hold;  // also planted in the hold
    };
    const std::vector<Row> rows = {
        {"fifo", [](const std::string& p) { mkfifo(p.c_str(), 0600); }, "not a regular file", 1},
        {"zero", [](const std::string& p) { symlink("/dev/zero", p.c_str()); }, "link", 1},
        {"link", [&](const std::string& p) { symlink(target.c_str(), p.c_str()); }, "link", 1},
        {"to-tmp", [](const std::string& p) { symlink("/tmp", p.c_str()); }, "link", 1},
        {"huge", [](const std::string& p) { sparse(p, off_t(1) << 30); }, "larger than", 1},
        {"over", [](const std::string& p) { sparse(p, maxMailBytes + 1); }, "larger than", 1},
        {"garbage", [](const std::string& p) { writeFile(p, "To: x\n\nbody"); }, "envelope", 1},
        {"no-recipient",
         [](const std::string& p) { writeFile(p, "X-Spool-From: a\nX-Spool-Queued: 1\nbody"); },
         "envelope", 0},
        {"bad-time",
         [](const std::string& p) {
             writeFile(p, "X-Spool-From: a\nX-Spool-To: b\nX-Spool-Queued: soon\n");
         },
         "envelope", 0},
    };
    const long before = peakKib();
    Spool spool(dir / "spool");
    Hold hold(dir / "hold");
    for (const Row& row : rows) {
        row.make(spool.folder(SpoolState::Waiting) + "/" + row.name);
        if (row.hold) {
            row.make(dir / "hold/new/" + row.name);
        }
    }
    // Moved to failed/ before any attempt: no server needs to answer.
    SmtpSettings settings = settingsFor("smtp://127.0.0.1:1", {{"spool", dir / "spool"}});
    settings.retryAtStart = false;  // all in this drain's result
    SmtpAgent agent(settings);
    const auto result = agent.drain(std::chrono::seconds(60));
    EXPECT_EQ(result.failed, rows.size());
    EXPECT_EQ(result.waiting, 0u);
    std::string reports;
    for (const std::string& problem : result.problems) {
        reports += problem + "\n";
    }
    testing::internal::CaptureStderr();
    for (const std::string& name : hold.names()) {
        HeldMail mail;
        EXPECT_FALSE(hold.load(name, mail)) << name;
        hold.setAside(name);
    }
    const std::string holdReports = testing::internal::GetCapturedStderr();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        for (const std::string& report : row.hold ? std::vector<std::string>{reports, holdReports}
                                                  : std::vector<std::string>{reports}) {
            EXPECT_TRUE(contains(report, std::string(row.name) + "\" is not ")) << report;
        }
        EXPECT_TRUE(contains(reports, row.why)) << reports;
        struct stat st;
        EXPECT_EQ(lstat((spool.folder(SpoolState::Failed) + "/" + row.name).c_str(), &st), 0);
        EXPECT_EQ(lstat((dir / "hold/cur/" + row.name).c_str(), &st) == 0, row.hold);
    }
    EXPECT_TRUE(listDir(dir / "spool/new").empty());
    EXPECT_TRUE(listDir(dir / "hold/new").empty());
    EXPECT_EQ(readFile(target), mail) << "the link's target is left alone";
    EXPECT_LT(peakKib() - before, 32 * 1024) << "a file over the bound was read";
}

// Written with line breaks in its fields, read back as one line each.
TEST(EnvelopeStore, AMailKeepsItsEnvelope) {
    TempDir dir;
    Spool spool(dir / "spool");
    const SpooledMessage m{"", {"a@b", "\"odd > name\"@c"}, "X-Spool-To: not envelope\n\nbody", 7};
    SpooledMessage back;
    std::string failure;
    ASSERT_TRUE(spool.loadFailed(spool.putFailed(m, "550 no\r\nsecond line"), back, failure));
    EXPECT_EQ(back.from, "");
    EXPECT_EQ(back.to, m.to);
    EXPECT_EQ(back.message, m.message);
    EXPECT_EQ(back.queued, m.queued);
    EXPECT_EQ(failure, "550 no  second line");
}

// Mail another user could write there would be sent as the channel's.
TEST(EnvelopeStore, AFolderOthersMayWriteToIsRefused) {
    struct Row {
        const char* folder;  // made with `mode`
        mode_t mode;
        bool hold;
    };
    const std::vector<Row> rows = {
        {"spool", 0777, false},
        {"spool/failed/new", 0730, false},
        {"hold", 0770, true},
        {"hold/new", 01777, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.folder);
        TempDir dir;
        const std::string store = dir / (row.hold ? "hold" : "spool");
        if (row.hold) {
            Hold made(store);
        } else {
            Spool made(store);
        }
        ASSERT_EQ(chmod((dir / row.folder).c_str(), row.mode), 0);
        const std::string text = messageOf<AgentParamException>([&] {
            if (row.hold) {
                Hold again(store);
            } else {
                SmtpAgent agent(settingsFor("smtp://127.0.0.1:1", {{"spool", store}}));
            }
        });
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", row.mode);
        EXPECT_EQ(
            missingFrom(text, {dir / row.folder + "\"", mode, row.hold ? "\"hold\"" : "\"spool\""}),
            "")
            << text;
    }
}
