#include "ChannelHarness.h"

#include <dlfcn.h>

#include "FuzzCheck.h"

namespace fuzzing {
namespace {

// The agent's recording functions, opened the way the channel opens it.
template <typename Function>
Function _agent(const char* name) {
    static void* const lib = dlopen(FUZZ_AGENT_PATH, RTLD_NOW);
    check(lib != nullptr, "cannot open the recording agent", dlerror() ? dlerror() : "");
    return reinterpret_cast<Function>(dlsym(lib, name));
}

}  // namespace

void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders) {
    const testing_support::MailShape shape = testing_support::readMail(mail, expectedHeaders);
    if (!shape.problems.empty())
        fail(shape.problems.front(), mail);
}

boost::shared_ptr<const Tamxml::Document> parseOrNull(const char* data, std::size_t size) {
    try {
        return Tamxml::Document::fromMemory(data, size);
    } catch (const Tamxml::XmlException&) {
        return boost::shared_ptr<const Tamxml::Document>();
    }
}

void logAndCheck(CountingChannel& channel, unsigned long id,
                 const boost::shared_ptr<const Tamxml::Document>& event,
                 const std::set<std::string>* expectedExtraHeaders) {
    _agent<void (*)()>("testAgentReset")();
    const std::size_t reportsBefore = channel.reports;
    const bool ofAGroup = channel.event_groups().count(id) != 0;
    try {
        channel.do_log(boost::shared_ptr<Osk::ChannelEvent>(new Osk::ChannelEvent(id, event)));
    } catch (...) {
        fail("an exception left do_log");
    }
    const std::size_t sent = _agent<std::size_t (*)()>("testAgentCallCount")();
    if (!ofAGroup) {
        check(sent == 0 && channel.reports == reportsBefore,
              "an event of no group was sent or reported");
        return;
    }
    check(sent <= 1, "one event sent more than one mail");
    check(sent == 1 || channel.reports > reportsBefore, "an event was neither sent nor reported");
    if (sent == 1 && expectedExtraHeaders) {
        std::set<std::string> expected = standardHeaders();
        expected.insert(expectedExtraHeaders->begin(), expectedExtraHeaders->end());
        checkMail(_agent<const char* (*)(std::size_t)>("testAgentMessage")(0), expected);
    }
}

}  // namespace fuzzing
