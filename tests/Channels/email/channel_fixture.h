#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Channels/email/email_channel.h"

namespace testing_support {

struct Report {
    std::string severity;  // "warning", "critical" or "other"
    std::string text;
};

// Replaces the first occurrence of `from` (which must be present) by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

// A valid configuration using the recording test agent.
std::string baseConfig();

Osk::ChannelCfg config(const std::string& xml);
boost::shared_ptr<Osk::ChannelEvent> event(unsigned long id, const std::string& xml);

// A channel whose reports are collected instead of printed.
struct ReportingChannel : Osk::email_channel {
    ReportingChannel();
    std::vector<Report> reports;
};

// Calls into the recording test agent, opened the same way the channel opens it.
struct TestAgent {
    TestAgent();
    std::size_t count() const;
    std::string message(std::size_t i) const;
    std::string recipients(std::size_t i) const;
    void reset() const;

private:
    void* lib_;
};

// Sets or unsets an environment variable for the life of the object.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();

private:
    std::string name_;
    bool had_;
    std::string old_;
};

}  // namespace testing_support
