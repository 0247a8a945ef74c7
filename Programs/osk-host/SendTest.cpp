#include "Programs/osk-host/SendTest.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <exception>

#include "Osk/EmailAgent.h"
#include "Programs/osk-host/ChannelSetup.h"
#include "Toolkit/Abi.h"

namespace Osk {

namespace {

std::string _hostName() {
    char name[HOST_NAME_MAX + 1] = {};
    return ::gethostname(name, sizeof name - 1) == 0 ? name : "an unnamed host";
}

std::string _utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc;
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
    return text;
}

std::string _absolute(const std::string& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

// The text of whatever the agent threw, whatever its type.
std::string _why(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (...) {
        return Tamtk::internal::abi::current_exception();
    }
}

std::string _list(const EmailChannel::ToList& to) {
    std::string text;
    for (const Tamnet::EmailAddr& address : to) {
        text += (text.empty() ? "" : ", ") + address.asRFC821String(false);
    }
    return text;
}

}  // namespace

int sendTest(const SendTestOptions& options, HostLog& log, std::ostream& out) {
    EmailChannel::ToList to;
    if (!options.to.empty()) {
        try {
            to.emplace_back(options.to);
        } catch (const Tamtk::Exception& e) {
            log.note("--to " + HostLog::clean(options.to) + " is no address: " + e.what());
            return 64;
        }
    }
    const CreateChannel create = loadChannel(options.channel, log);
    if (create == nullptr) {
        return 69;
    }
    const boost::shared_ptr<Channel> channel = create();
    channel->set_reporter([&log](const Tamlog::severity_mask& sev, const std::string& text) {
        log.report(sev, text);
    });
    if (!configureChannel(*channel, options.config, false, log)) {
        return 2;
    }
    const std::string host = _hostName();
    const std::string config = _absolute(options.config);
    const std::string subject = "[TEST] alerting test from " + host;
    const std::string body =
        "This is a test alert, not an incident.\n\nSent by osk-host --send-test "
        "on " +
        host + " at " + _utcNow() + "\nwith the configuration " + config +
        ".\n\nIf you read this, alerts of this configuration "
        "reach you.\n";
    std::exception_ptr failure;
    try {
        failure = channel->do_send_test(
            subject, body,
            options.to.empty() ? std::vector<std::string>() : std::vector<std::string>{options.to});
    } catch (...) {
        failure = std::current_exception();  // the mail was not even built: lost
    }
    channel->do_shutdown();
    const std::string recipients = to.empty() ? "the configured recipients" : _list(to);
    if (!failure) {
        out << "delivered: the test mail to " << recipients << " was accepted\n";
        return 0;
    }
    const std::string why = HostLog::clean(_why(failure));
    if (EmailChannel::alertKept(failure)) {
        out << "kept, not delivered: the test mail to " << recipients
            << " was spooled or held for later: " << why << "\n";
        return 1;
    }
    out << "refused, not delivered: the test mail to " << recipients << " is lost: " << why << "\n";
    return 3;
}

}  // namespace Osk
