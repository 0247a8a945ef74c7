#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Osk/Channel.h"

namespace {

class Probe : public Osk::Channel {
public:
    Probe() : Channel("probe") {}
    bool do_configure(const Osk::ChannelCfg&) override { return true; }
    void do_log(boost::shared_ptr<Osk::ChannelEvent>) override {}
    void do_flush() override {}
    void do_shutdown() override {}
};

struct Report {
    std::string severity;
    std::string text;
};

std::string severityName(const Tamlog::severity_mask& s) {
    if (s.equal(Tamlog::sev::warning))
        return "warning";
    if (s.equal(Tamlog::sev::critical))
        return "critical";
    return "other";
}

}  // namespace

TEST(Channel, ReportsGoToTheChannelReporterThenTheDefaultThenStandardError) {
    Probe channel;
    EXPECT_EQ(channel.name(), "probe");

    testing::internal::CaptureStderr();
    channel.report_error(Tamlog::sev::warning, "to stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "probe: warning: to stderr\n");

    std::vector<Report> global;
    Osk::Channel::set_default_reporter([&](const Tamlog::severity_mask& s, const std::string& t) {
        global.push_back({severityName(s), t});
    });
    channel.report_error(Tamlog::sev::critical, std::string("to default"));

    std::vector<Report> own;
    channel.set_reporter([&](const Tamlog::severity_mask& s, const std::string& t) {
        own.push_back({severityName(s), t});
    });
    channel.report_error(Tamlog::sev::warning, static_cast<const char*>(nullptr));
    Osk::Channel::set_default_reporter(Osk::Reporter());

    ASSERT_EQ(global.size(), 1u);
    EXPECT_EQ(global[0].severity, "critical");
    EXPECT_EQ(global[0].text, "to default");
    ASSERT_EQ(own.size(), 1u);
    EXPECT_EQ(own[0].severity, "warning");
    EXPECT_EQ(own[0].text, "");
}

TEST(Channel, AThrowingReporterDoesNotEscape) {
    Probe channel;
    channel.set_reporter([](const Tamlog::severity_mask&, const std::string&) { throw 1; });
    EXPECT_NO_THROW(channel.report_error(Tamlog::sev::warning, "x"));
}
