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

// Collects "severity text" lines.
Osk::Reporter collect(std::vector<std::string>& into) {
    return [&into](const Tamlog::severity_mask& s, const std::string& text) {
        into.push_back(Tamlog::severityName(s) + " " + text);
    };
}

}  // namespace

// A report goes to the channel's own reporter, else the default one, else
// standard error; a reporter that throws does not take the caller down.
TEST(Channel, ReportsGoToTheChannelReporterThenTheDefaultThenStandardError) {
    Probe channel;
    testing::internal::CaptureStderr();
    channel.report_error(Tamlog::sev::warning, "to stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "probe: warning: to stderr\n");

    std::vector<std::string> global, own;
    Osk::Channel::set_default_reporter(collect(global));
    channel.report_error(Tamlog::sev::critical, std::string("to default"));
    channel.set_reporter(collect(own));
    channel.report_error(Tamlog::sev::warning, static_cast<const char*>(nullptr));
    Osk::Channel::set_default_reporter(Osk::Reporter());
    EXPECT_EQ(global, std::vector<std::string>{"critical to default"});
    EXPECT_EQ(own, std::vector<std::string>{"warning "});

    channel.set_reporter([](const Tamlog::severity_mask&, const std::string&) { throw 1; });
    EXPECT_NO_THROW(channel.report_error(Tamlog::sev::warning, "x"));
}
