#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "Channels/email/email_channel.h"
#include "mail_shape.h"

namespace testing_support {

struct Report {
    std::string severity;  // "warning", "critical" or "other"
    std::string text;
};

// Replaces the first occurrence of `from` (which must be present) by `to`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

// A valid configuration using the recording test agent.
std::string baseConfig();

// The header names of a mail with the headers X-Host and X-Group, and X-Detail.
std::set<std::string> hostileHeaders(bool withDetail);

Osk::ChannelCfg config(const std::string& xml);
boost::shared_ptr<Osk::ChannelEvent> event(unsigned long id, const std::string& xml);

// A channel whose reports are collected instead of printed.
struct ReportingChannel : Osk::email_channel {
    ReportingChannel();
    std::vector<Report> reports;
};

// Calls into the recording test agent, opened the same way the channel opens it.
struct TestAgent {
    TestAgent();  // forgets what earlier tests sent
    std::size_t count() const;
    std::string message(std::size_t i) const;
    std::string recipients(std::size_t i) const;

private:
    void* lib_;
};

// The mails the recording agent received while `channel` logged one event.
std::vector<std::string> mailsFor(ReportingChannel& channel, unsigned long id,
                                  const std::string& xml);

// Sets a locale variable for the object's life; they start unset, whatever the machine.
struct ScopedEnv {
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    std::string name;
};

}  // namespace testing_support
