#include "Channels/email/email_channel.h"

#include <cstdlib>
#include <cstring>

namespace Osk {

email_channel::email_channel() : Channel("email"), send_email_(nullptr), charset_("UTF-8") {
    // Only get_charset writes the locale, but do_log passes it to every
    // stylesheet: start it empty rather than undefined.
    std::memset(locale_, 0, sizeof locale_);
}

email_channel::~email_channel() {}

void email_channel::do_flush() {
    // Every event is sent while do_log runs; nothing is queued.
}

void email_channel::do_shutdown() {
    try {
        tokens_.clear();
        event_groups_.clear();
        agent_params_.clear();
        recipients_.clear();
        subject_.clear();
        sender_name_.clear();
        // Left empty, not reset to UTF-8: a reconfiguration without a matching
        // Charset keeps it empty.
        charset_.clear();
        stylesheet_limits_ = Tamxml::TransformLimits();
    } catch (...) {
        // Shutting down never fails towards the host.
    }
}

namespace internal {

void _copy_env_locale(const char* name, char* buffer, unsigned int size) {
    const char* value = std::getenv(name);
    if (value != nullptr) {
        std::strncpy(buffer, value, size);
    }
}

}  // namespace internal

}  // namespace Osk

boost::shared_ptr<Osk::Channel> createChannel() {
    return boost::shared_ptr<Osk::Channel>(new Osk::email_channel());
}
