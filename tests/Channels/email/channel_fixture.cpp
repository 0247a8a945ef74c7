#include "channel_fixture.h"

#include <dlfcn.h>

#include <cstdlib>

namespace testing_support {
namespace {

[[maybe_unused]] const bool _localeUnset = unsetenv("TAM_LANG") == 0 && unsetenv("LANGUAGE") == 0;

template <typename Function>
Function _agentFunction(void* lib, const char* name) {
    return reinterpret_cast<Function>(dlsym(lib, name));
}

}  // namespace

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
  <EmailAgent lib=")") +
           TEST_AGENT_PATH + R"("><Param name="mode" value="record"/></EmailAgent>
</Channel>
)";
}

std::set<std::string> hostileHeaders(bool withDetail) {
    std::set<std::string> names = standardHeaders();
    names.insert({"X-Host", "X-Group"});
    if (withDetail)
        names.insert("X-Detail");
    return names;
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
    _agentFunction<void (*)()>(lib_, "testAgentReset")();
}

std::size_t TestAgent::count() const {
    return _agentFunction<std::size_t (*)()>(lib_, "testAgentCallCount")();
}

std::string TestAgent::message(std::size_t i) const {
    return _agentFunction<const char* (*)(std::size_t)>(lib_, "testAgentMessage")(i);
}

std::string TestAgent::recipients(std::size_t i) const {
    return _agentFunction<const char* (*)(std::size_t)>(lib_, "testAgentRecipients")(i);
}

std::vector<std::string> mailsFor(ReportingChannel& channel, unsigned long id,
                                  const std::string& xml) {
    TestAgent agent;
    channel.do_log(event(id, xml));
    std::vector<std::string> mails;
    for (std::size_t i = 0; i < agent.count(); ++i) mails.push_back(agent.message(i));
    return mails;
}

ScopedEnv::ScopedEnv(const char* name_, const char* value) : name(name_) {
    if (value)
        setenv(name_, value, 1);
}

ScopedEnv::~ScopedEnv() {
    unsetenv(name.c_str());
}

}  // namespace testing_support
