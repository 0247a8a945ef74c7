#include "ChannelHarness.h"

#include <dlfcn.h>

#include <set>

#include "FuzzCheck.h"
#include "MailCheck.h"

namespace fuzzing {

CountingChannel::CountingChannel() {
    set_reporter([this](const Tamlog::severity_mask&, const std::string&) { ++reports; });
}

const Agent& Agent::instance() {
    static const Agent agent;
    return agent;
}

const char* Agent::path() { return FUZZ_AGENT_PATH; }

Agent::Agent() : lib_(dlopen(FUZZ_AGENT_PATH, RTLD_NOW)) {
    check(lib_ != nullptr, "cannot open the recording agent", dlerror() ? dlerror() : "");
}

std::size_t Agent::count() const {
    return reinterpret_cast<std::size_t (*)()>(dlsym(lib_, "testAgentCallCount"))();
}

std::string Agent::message(std::size_t i) const {
    return reinterpret_cast<const char* (*)(std::size_t)>(dlsym(lib_, "testAgentMessage"))(i);
}

void Agent::reset() const { reinterpret_cast<void (*)()>(dlsym(lib_, "testAgentReset"))(); }

boost::shared_ptr<const Tamxml::Document> parseOrNull(const char* data, std::size_t size) {
    try {
        return Tamxml::Document::fromMemory(data, size);
    } catch (const Tamxml::XmlException&) {
        return boost::shared_ptr<const Tamxml::Document>();
    }
}

void logAndCheck(CountingChannel& channel, const boost::shared_ptr<Osk::ChannelEvent>& event,
                 const std::set<std::string>* expectedExtraHeaders) {
    const Agent& agent = Agent::instance();
    agent.reset();
    const std::size_t reportsBefore = channel.reports;
    const bool ofAGroup = channel.event_groups().count(event->id()) != 0;
    try {
        channel.do_log(event);
    } catch (...) {
        fail("an exception left do_log");
    }
    if (!ofAGroup) {
        check(agent.count() == 0 && channel.reports == reportsBefore,
              "an event of no group was sent or reported");
        return;
    }
    check(agent.count() <= 1, "one event sent more than one mail");
    check(agent.count() == 1 || channel.reports > reportsBefore,
          "an event was neither sent nor reported");
    if (agent.count() == 1 && expectedExtraHeaders) {
        std::set<std::string> expected = standardHeaders();
        expected.insert(expectedExtraHeaders->begin(), expectedExtraHeaders->end());
        checkMail(agent.message(0), expected);
    }
}

}  // namespace fuzzing
