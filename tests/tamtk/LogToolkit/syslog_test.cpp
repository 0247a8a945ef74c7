#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "LogToolkit/LogTarget.h"
#include "tamtk/LogToolkit/log_test_util.h"

using namespace Tamlog;
using namespace logtest;
using internal::severity::debug_severity;
using Tamtk::CountedRef;
using Tamtk::makeCounted;

// What the toolkit handed to the C library's system-log functions, as
// "priority text" and "ident options facility". These definitions take the
// place of the C library's for this program: nothing reaches the real log.
namespace {
std::vector<std::string> sent, opened;

void record(int priority, const char* format, va_list args) {
    char text[2048];
    std::vsnprintf(text, sizeof text, format, args);
    sent.push_back(std::to_string(priority) + " " + text);
}
}  // namespace

extern "C" {
__attribute__((visibility("default"))) void openlog(const char* ident, int options, int facility) {
    opened.push_back(std::string(ident ? ident : "(null)") + " " + std::to_string(options) + " " +
                     std::to_string(facility));
}
__attribute__((visibility("default"))) void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    record(priority, format, args);
    va_end(args);
}
// The form a fortified build calls.
__attribute__((visibility("default"))) void __syslog_chk(int priority, int, const char* format,
                                                         ...) {
    va_list args;
    va_start(args, format);
    record(priority, format, args);
    va_end(args);
}
__attribute__((visibility("default"))) void closelog() {}
}

namespace {

const Tamtk::Location here("agent.cpp", 3, "void f()");

std::string line(int priority, const std::string& text) {
    return std::to_string(priority) + " " + text;
}

class Syslog : public ::testing::Test {
protected:
    void SetUp() override {
        sent.clear();
        opened.clear();
    }
};

}  // namespace

TEST(SyslogConverter, LevelsOfSeveritiesAndCombinations) {
    const debug_severity bit(0x4);
    const struct {
        SeverityBag record;
        int level;
    } rows[] = {
        {bagOf({&sev::alert}), 1},
        {bagOf({&sev::critical}), 2},
        {bagOf({&sev::error}), 3},
        {bagOf({&sev::warning}), 4},
        {bagOf({&sev::notice}), 5},
        {bagOf({&sev::info}), 6},
        {bagOf({&bit}), 7},
        {bagOf({&sev::debug_all}), 7},
        {bagOf({&sev::debug_def}), 0},  // no debug bits
        {bagOf({&sev::warning, &sev::notice}), 5},
        {bagOf({&sev::alert, &sev::critical}), 3},
        {bagOf({&sev::error, &sev::info}), 7},
        {bagOf({&sev::audit_fail}), 0},
        {SeverityBag(), 0},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(posix_syslog::default_converter(r.record), r.level) << severityNames(r.record);
    }
}

TEST_F(Syslog, RecordsReachSyslogWithLevelAndFacility) {
    OSLoggerTarget t("sys");
    t.setSevMask(sev::audit_fail);
    t.sendlog(bagOf({&sev::warning, &sev::notice}), here, "delivery", "100% lost");
    t.setFacility(LOG_LOCAL3);
    t.sendlog(sev::audit_fail, here, "audit", "login refused");
    t.sendlog(sev::audit_success, here, "audit", "not accepted by default");
    t.setFormatter([](const SeverityBag&, const Tamtk::Location&, const Event& e,
                      const std::string& why, const InfoBag&) { return e + ": " + why; });
    t.setSevConverter([](const SeverityBag&) { return LOG_DEBUG; });
    t.sendlog(sev::critical, here, "render", "bad token");
    const std::vector<std::string> expected = {
        line(LOG_USER | 5,
             "EVENT: delivery SEV: warning|notice WHY: 100% lost  [agent.cpp:3 in void f()]"),
        line(LOG_LOCAL3 | LOG_EMERG,
             "EVENT: audit SEV: audit_fail WHY: login refused  "
             "[agent.cpp:3 in void f()]"),
        line(LOG_LOCAL3 | LOG_DEBUG, "render: bad token")};
    EXPECT_EQ(sent, expected);

    t.setSevConverter([](const SeverityBag&) { return 8; });
    EXPECT_EQ(messageOf<LogException>([&] { t.sendlog(sev::error, here, "e", "w"); }),
              "Could not send event to POSIX syslog system");
    t.setSevConverter([](const SeverityBag&) -> int { throw std::runtime_error("no level"); });
    try {
        t.sendlog(sev::error, here, "e", "w");
        ADD_FAILURE() << "a failing converter went unnoticed";
    } catch (const SendlogFailure& f) {
        EXPECT_STREQ(f.what(), "Failure in attempt to send an event to the POSIX syslog system");
        EXPECT_NE(std::string(f.composed().c_str()).find("no level"), std::string::npos);
    }
    EXPECT_EQ(sent, expected);
}

TEST_F(Syslog, MessagesOfRefusedChanges) {
    OSLoggerTarget t("sys");
    const std::string facility = "In attempt to set new facility for OSLoggerTarget";
    const struct {
        std::function<void()> op;
        std::string message;
    } rows[] = {
        {[&] { t.setFormatter(RecordFormatter()); },
         "In attempt to set new formatter for OSLoggerTarget"},
        {[&] { t.setSevConverter(SeverityConverter()); },
         "In attempt to set new severity converter for OSLoggerTarget"},
        {[&] { t.setFacility(LOG_USER | LOG_ERR); }, facility},
        {[&] { t.setFacility(LOG_NFACILITIES << 3); }, facility},
        {[&] { t.setSettings(makeCounted<StreamTargetSettings>()); },
         "Settings of type Tamlog::StreamTargetSettings is incompatiable with "
         "OSLoggerTargetSettings"},
        {[&] { OSLoggerTarget("sys2", makeCounted<TargetSettings>()); },
         "Settings of type Tamlog::TargetSettings is incompatiable with OSLoggerTargetSettings"},
        {[] { posix_syslog::init_subsystem("x", -8); },
         "Could not initialise subsystem. Last system error (22) reports Invalid argument"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(messageOf<LogException>(r.op), r.message);
    }
    t.sendlog(sev::error, here, "e", "defaults");
    EXPECT_EQ(sent, std::vector<std::string>{line(LOG_USER | LOG_ERR,
                                                  "EVENT: e SEV: error WHY: defaults  "
                                                  "[agent.cpp:3 in void f()]")});
}

TEST_F(Syslog, InitOSLoggerOpensAndRegistersOnce) {
    LogTarget first = LogTarget::initOSLogger(posix_syslog::init_data("osk-host", LOG_DAEMON));
    first.target()->setSevMask(sev::audit_success);
    LogTarget again = LogTarget::initOSLogger(posix_syslog::init_data("osk-host2", LOG_LOCAL0));
    EXPECT_EQ(again.target().get(), first.target().get()) << "the target is kept";
    EXPECT_EQ(opened, (std::vector<std::string>{
                          "osk-host " + line(LOG_PID, "") + std::to_string(LOG_DAEMON),
                          "osk-host2 " + line(LOG_PID, "") + std::to_string(LOG_LOCAL0)}));
    sendlog(LogTarget::byname("oslogger"), sev::audit_success, here, "audit", "ok");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].rfind(std::to_string(LOG_LOCAL0 | LOG_EMERG) + " ", 0), 0u);

    EXPECT_EQ(
        messageOf<LogException>([] { LogTarget::initOSLogger(posix_syslog::init_data("h", 3)); }),
        "Unexpected error when attemptiong to check up on or register oslogger");
    EXPECT_EQ(messageOf<LogException>(
                  [] { LogTarget::updateSettings("oslogger", makeCounted<TargetSettings>()); }),
              "A settings instance of Tamlog::TargetSettings is not valid for a target of "
              "Tamlog::OSLoggerTarget");
}
