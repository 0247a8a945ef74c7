#include "Agents/digest/DigestAgent.h"

#include <cstdlib>
#include <ctime>
#include <memory>

#include "Agents/common/AgentException.h"
#include "Agents/common/MailHeaders.h"
#include "Agents/digest/Digest.h"
#include "NetToolkit/Rfc2822Date.h"
#include "Osk/EmailAgentBinding.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/digest";

std::string _key(const std::string& from, const std::vector<std::string>& to) {
    std::string key = from;
    for (const std::string& r : to) {
        key += '\n' + r;
    }
    return key;
}

std::vector<std::string> _plain(const EmailChannel::ToList& to) {
    std::vector<std::string> out;
    out.reserve(to.size());
    for (const Tamnet::EmailAddr& r : to) {
        out.push_back(r.asPlainString(false));
    }
    return out;
}

void _armExitFlush();

}  // namespace

DigestAgent::DigestAgent(const DigestSettings& settings)
    : settings_(settings), inner_(nullptr), hold_(settings_.hold) {
    // Bound as the channel binds its agent: the same library is then the
    // same registry entry whoever asks first.
    inner_ = EmailChannel::bindSendEmail(settings_.agent);

    // Left by an earlier run: its windows are over.
    const Clock::time_point now = Clock::now();
    for (const std::string& name : hold_.names()) {
        HeldMail mail;
        if (!hold_.load(name, mail)) {
            hold_.setAside(name);
            continue;
        }
        Window& window = windows_[_key(mail.from, mail.to)];
        window.end = now;
        window.passed = settings_.burst;
        window.held.push_back(name);
    }
    timer_ = std::thread(&DigestAgent::timerLoop, this);
}

DigestAgent::~DigestAgent() {
    shutdown();
}

std::size_t DigestAgent::held() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t n = 0;
    for (const auto& entry : windows_) {
        n += entry.second.held.size();
    }
    return n;
}

void DigestAgent::deliver(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to,
                          const char* message) {
    struct Armed {
        ~Armed() { _armExitFlush(); }
    } armed;
    inner_(from, to, message, settings_.inner);
}

void DigestAgent::send(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to,
                       const char* message) {
    TAMTK_ASSERT(message, _source);
    std::unique_lock<std::mutex> lock(mutex_);
    if (stopping_) {
        deliver(from, to, message);
        return;
    }
    const Clock::time_point now = Clock::now();
    std::exception_ptr failure;
    std::swap(failure, failure_);
    flushDue(now, failure);

    HeldMail mail{from.asPlainString(false), _plain(to), std::time(nullptr), std::string()};
    auto found = windows_.find(_key(mail.from, mail.to));
    if (found == windows_.end()) {
        found = windows_.emplace(_key(mail.from, mail.to), Window()).first;
        found->second.end = now + std::chrono::milliseconds(settings_.windowMs);
        wake_.notify_all();
    }
    Window& window = found->second;
    if (window.passed < settings_.burst) {
        ++window.passed;
        deliver(from, to, message);
    } else {
        mail.message = message;
        window.held.push_back(hold_.put(mail));
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void DigestAgent::flushDue(Clock::time_point now, std::exception_ptr& failure) {
    for (auto it = windows_.begin(); it != windows_.end();) {
        Window& window = it->second;
        if (window.end > now) {
            ++it;
            continue;
        }
        if (!window.held.empty()) {
            try {
                sendHeld(window.held);
            } catch (...) {
                // Held it stays; the next window's end tries it again.
                if (!failure) {
                    failure = std::current_exception();
                }
                window.end = now + std::chrono::milliseconds(settings_.windowMs);
                window.passed = 0;
                ++it;
                continue;
            }
        }
        it = windows_.erase(it);
    }
}

void DigestAgent::sendHeld(const std::vector<std::string>& names) {
    std::vector<std::string> mails;
    HeldMail first;
    for (const std::string& name : names) {
        HeldMail mail;
        if (!hold_.load(name, mail)) {
            hold_.setAside(name);  // no envelope: not ours to send, but kept
            continue;
        }
        if (mails.empty()) {
            first = mail;
            first.message.clear();
        }
        mails.push_back(std::move(mail.message));
    }
    if (!mails.empty()) {
        EmailChannel::ToList to;
        for (const std::string& r : first.to) {
            to.push_back(Tamnet::EmailAddr(r));
        }
        const Tamnet::EmailAddr from(first.from);
        if (mails.size() == 1) {
            deliver(from, to, mails.front().c_str());
        } else {
            const std::string digest =
                buildDigest(mails, static_cast<long>(std::time(nullptr)), newMessageId());
            deliver(from, to, digest.c_str());
        }
    }
    hold_.remove(names);
}

void DigestAgent::timerLoop() {
    // Everything held is sent from this thread, also when the process ends
    // (the exiting thread's thread_local objects are gone by then) and when
    // the library is unloaded. The toolkit's date formatter keeps its text
    // in a thread_local: made here and now, its destructor is not registered
    // during an unload, which would wait for the loader's lock that the
    // unloading thread holds while it waits for this one.
    Tamnet::rfc2822Date(0);
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        Clock::time_point next = Clock::time_point::max();
        for (const auto& entry : windows_) {
            next = std::min(next, entry.second.end);
        }
        if (next == Clock::time_point::max()) {
            wake_.wait(lock);
        } else if (Clock::now() < next) {
            wake_.wait_until(lock, next);
        }
        if (stopping_) {
            break;
        }
        std::exception_ptr failure;
        flushDue(Clock::now(), failure);
        if (failure) {
            failure_ = failure;  // for the channel, with the next mail
        }
    }
    for (auto& entry : windows_) {
        if (entry.second.held.empty()) {
            continue;
        }
        try {
            sendHeld(entry.second.held);
        } catch (...) {
            // Still in the hold: the next run sends it.
        }
    }
    windows_.clear();
}

void DigestAgent::shutdown() noexcept {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (timer_.joinable() && timer_.get_id() != std::this_thread::get_id()) {
        timer_.join();
    }
}

namespace {

class Registry {
public:
    std::shared_ptr<DigestAgent> get(const Params& params) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = agents_.find(params);
        if (it != agents_.end()) {
            return it->second.agent;
        }
        const DigestSettings settings = DigestSettings::fromParams(params);
        // A hold belongs to one agent: a new configuration of the same hold
        // (the host configured its channel again) takes it over, once the
        // old one has sent what it held.
        for (auto old = agents_.begin(); old != agents_.end(); ++old) {
            if (old->second.hold == settings.hold) {
                old->second.agent->shutdown();
                agents_.erase(old);
                break;
            }
        }
        std::shared_ptr<DigestAgent> agent = std::make_shared<DigestAgent>(settings);
        agents_.emplace(params, Entry{settings.hold, agent});
        return agent;
    }

    void shutdownAll() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& entry : agents_) {
            entry.second.agent->shutdown();
        }
    }

private:
    struct Entry {
        std::string hold;
        std::shared_ptr<DigestAgent> agent;
    };
    std::mutex mutex_;
    std::map<Params, Entry> agents_;
};

Registry& _registry() {
    static Registry registry;
    return registry;
}

void _flushAtExit() {
    _registry().shutdownAll();
}

// Held mail goes out through the delivering agent, whose own objects may
// live in function-local statics made on its first call: the flush must
// come before their destructors, so it is registered again once that first
// call is over (exit handlers run in the reverse order of registration).
void _armExitFlush() {
    static const bool armed = (std::atexit(&_flushAtExit), true);
    (void)armed;
}

}  // namespace

std::shared_ptr<DigestAgent> digestAgentFor(const Params& params) {
    Registry& registry = _registry();
    static const bool armed = (std::atexit(&_flushAtExit), true);
    (void)armed;
    return registry.get(params);
}

}  // namespace EmailAgents
}  // namespace Osk
