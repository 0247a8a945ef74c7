#include "channel_fixture.h"

#include <dlfcn.h>

#include <cstdlib>

namespace testing_support {

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::string::size_type at = text.find(from);
    if (at == std::string::npos) {
        ADD_FAILURE() << "fragment not in configuration: " << from;
        return text;
    }
    return text.replace(at, from.size(), to);
}

std::string baseConfig() {
    return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<Channel>
  <Default>
    <RecipientList><Recipient value="ops@example.com"/><Recipient value="oncall@example.org"/></RecipientList>
    <Sender name="Alerter" email="alerts@example.com"/>
    <Subject value="Alert"/>
    <Charset enabled="yes" locale="fr" charset="ISO-8859-15"/>
    <Charset enabled="yes" locale="" charset="UTF-8"/>
    <ExtraHeaders><Header name="X-Host" xpath="/event/host" default="unknown"/></ExtraHeaders>
  </Default>
  <Tokens>
    <Token name="host" xpath="/event/host"/>
    <Token name="sev" default="HIGH"/>
  </Tokens>
  <EventGroup enabled="yes">
    <Message>Host %host% is %sev%</Message>
    <ExtraHeaders><Header name="X-Group" default="g1"/></ExtraHeaders>
    <Event id="7" enabled="yes"/>
    <Event id="8" enabled="yes"/>
  </EventGroup>
  <EmailAgent lib=")") + TEST_AGENT_PATH + R"("><Param name="mode" value="record"/></EmailAgent>
</Channel>
)";
}

Osk::ChannelCfg config(const std::string& xml) {
    return Osk::ChannelCfg(Tamxml::Document::fromMemory(xml.data(), xml.size()));
}

boost::shared_ptr<Osk::ChannelEvent> event(unsigned long id, const std::string& xml) {
    return boost::shared_ptr<Osk::ChannelEvent>(
        new Osk::ChannelEvent(id, Tamxml::Document::fromMemory(xml.data(), xml.size())));
}

ReportingChannel::ReportingChannel() {
    set_reporter([this](const Tamlog::severity_mask& s, const std::string& text) {
        const char* name = s.equal(Tamlog::sev::warning)    ? "warning"
                           : s.equal(Tamlog::sev::critical) ? "critical"
                                                            : "other";
        reports.push_back(Report{name, text});
    });
}

TestAgent::TestAgent() : lib_(dlopen(TEST_AGENT_PATH, RTLD_NOW)) {
    EXPECT_NE(lib_, nullptr) << dlerror();
}

std::size_t TestAgent::count() const {
    return reinterpret_cast<std::size_t (*)()>(dlsym(lib_, "testAgentCallCount"))();
}

std::string TestAgent::message(std::size_t i) const {
    return reinterpret_cast<const char* (*)(std::size_t)>(dlsym(lib_, "testAgentMessage"))(i);
}

std::string TestAgent::recipients(std::size_t i) const {
    return reinterpret_cast<const char* (*)(std::size_t)>(dlsym(lib_, "testAgentRecipients"))(i);
}

void TestAgent::reset() const { reinterpret_cast<void (*)()>(dlsym(lib_, "testAgentReset"))(); }

ScopedEnv::ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    if (value) {
        setenv(name, value, 1);
    } else {
        unsetenv(name);
    }
}

ScopedEnv::~ScopedEnv() {
    if (had_) {
        setenv(name_.c_str(), old_.c_str(), 1);
    } else {
        unsetenv(name_.c_str());
    }
}

}  // namespace testing_support
