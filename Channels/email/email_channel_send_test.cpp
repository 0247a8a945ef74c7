// The test mail that shows an operator the alert path works before an
// incident does (osk-host --send-test).

#include <ctime>

#include "Channels/email/email_channel.h"
#include "Channels/email/encode.h"

namespace Osk {

namespace {
const char* const _source = "email_channel";
}  // namespace

std::exception_ptr email_channel::do_send_test(const std::string& subject, const std::string& body,
                                               const std::vector<std::string>& to) {
    if (send_email_ == nullptr) {
        throw Tamtk::NullPointerException(Tamtk::ExceptionString("no email agent is bound"),
                                          TAMTK_HERE(_source));
    }
    EmailChannel::ToList recipients(to.begin(), to.end());
    if (recipients.empty()) {
        recipients = recipients_;
    }
    const std::string mail = EmailChannel::buildEmail(
        charset_.c_str(), static_cast<long>(std::time(nullptr)), sender_name_, sender_, recipients,
        Tamtk::Utf8Array(subject), Tamtk::Utf8Array(body), {});
    // Only an agent that has the parameter knows it; the others refuse
    // parameters they do not know.
    std::map<std::string, std::string> params = agent_params_;
    const auto queue = params.find("queue");
    if (queue != params.end()) {
        queue->second = "no";
    }
    try {
        send_email_(sender_, recipients, mail.c_str(), params);
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

}  // namespace Osk
