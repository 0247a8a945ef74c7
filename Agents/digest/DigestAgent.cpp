#include "Agents/digest/DigestAgent.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>

#include "Agents/common/AgentException.h"
#include "Agents/common/MailHeaders.h"
#include "Agents/digest/Digest.h"
#include "NetToolkit/Rfc2822Date.h"
#include "Osk/EmailAgentBinding.h"
#include "Toolkit/Abi.h"

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

std::string _joined(const std::vector<std::string>& notes) {
    std::string out;
    for (const std::string& note : notes) {
        out += (out.empty() ? "" : "; ") + note;
    }
    return out;
}

std::string _alerts(std::size_t n) {
    return n == 1 ? "the held alert" : "the digest of " + std::to_string(n) + " held alerts";
}

}  // namespace

DigestAgent::DigestAgent(const DigestSettings& settings, const std::string& passThrough)
    : settings_(settings), inner_(nullptr) {
    // Bound as the channel binds its agent: the same library is then the
    // same registry entry whoever asks first.
    inner_ = EmailChannel::bindSendEmail(settings_.agent);

    std::string why = passThrough;
    if (why.empty()) {
        try {
            hold_.reset(new Hold(settings_.hold));
            takeOver();
        } catch (const Tamtk::Exception& e) {
            hold_.reset();
            windows_.clear();
            why = e.what();
        }
    }
    if (!settings_.metrics.empty()) {
        metrics_.reset(new Tamtk::MetricsFile(settings_.metrics, [this] {
            Tamtk::MetricsText out;
            out.single("email_digest_held_total", "counter", "Mails held for a digest.",
                       static_cast<double>(heldTotal_));
            out.single("email_digest_sent_total", "counter",
                       "Digests (or lone held mails) the delivering agent took.",
                       static_cast<double>(sentTotal_));
            // The hold's files: what stays held past the end is counted too.
            out.single("email_digest_holding", "gauge", "Mails held now.",
                       static_cast<double>(hold_ ? hold_->names().size() : 0));
            return out.str();
        }));
    }
    if (!hold_) {
        // Flood control is gone, the alerts are not: said once, not per mail.
        const char* const prefix = "Digest agent: ";
        std::cerr << (why.compare(0, std::strlen(prefix), prefix) == 0 ? "" : prefix) << why
                  << "; every mail goes straight to \"" << settings_.agent
                  << "\" without flood control" << std::endl;
        return;
    }
    timer_ = std::thread(&DigestAgent::timerLoop, this);
}

void DigestAgent::takeOver() {
    // Left by an earlier run: its windows are over.
    const Clock::time_point now = Clock::now();
    for (const std::string& name : hold_->names()) {
        HeldMail mail;
        try {
            if (!hold_->load(name, mail)) {
                hold_->setAside(name);
                continue;
            }
        } catch (const Tamtk::Exception&) {
            continue;  // unreadable now: it stays for a later run
        }
        Window& window = windows_[_key(mail.from, mail.to)];
        window.end = now;
        window.passed = settings_.burst;
        window.held.push_back(name);
    }
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

void DigestAgent::passOn(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to,
                         const char* message, std::vector<std::string>& notes) {
    try {
        deliver(from, to, message);
    } catch (...) {
        if (notes.empty()) {
            throw;
        }
        if (!EmailChannel::alertKept(std::current_exception())) {
            // This mail's loss is its answer; the notes wait for the next one.
            notes_.insert(notes_.begin(), notes.begin(), notes.end());
            throw;
        }
        notes.insert(notes.begin(), Tamtk::internal::abi::current_exception());
        TAMTK_THROW(KeptException, _source, _joined(notes));
    }
    if (!notes.empty()) {
        notes.insert(notes.begin(), "Digest agent: the alert was delivered");
        TAMTK_THROW(KeptException, _source, _joined(notes));
    }
}

void DigestAgent::send(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to,
                       const char* message) {
    TAMTK_ASSERT(message, _source);
    std::unique_lock<std::mutex> lock(mutex_);
    std::vector<std::string> notes;
    if (!hold_ || stopping_) {
        passOn(from, to, message, notes);
        return;
    }
    const Clock::time_point now = Clock::now();
    std::swap(notes, notes_);
    flushDue(now, notes);

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
        passOn(from, to, message, notes);
        return;
    }
    mail.message = message;
    std::string name;
    try {
        name = hold_->put(mail);
    } catch (const Tamtk::Exception& e) {
        if (!holdFailing_) {
            std::cerr << "Digest agent: \"" << hold_->dir() << "\" cannot hold mail (" << e.what()
                      << "); it goes straight to \"" << settings_.agent
                      << "\" until the hold takes mail again" << std::endl;
        }
        holdFailing_ = true;
        passOn(from, to, message, notes);
        return;
    }
    holdFailing_ = false;
    window.held.push_back(name);
    ++heldTotal_;
    notes.insert(notes.begin(), "Digest agent: the alert is held in \"" + hold_->dir() +
                                    "\" for the digest at the end of its window");
    TAMTK_THROW(KeptException, _source, _joined(notes));
}

void DigestAgent::flushDue(Clock::time_point now, std::vector<std::string>& notes) {
    for (auto it = windows_.begin(); it != windows_.end();) {
        Window& window = it->second;
        if (window.end > now) {
            ++it;
            continue;
        }
        std::string failure;
        if (!window.held.empty() && !sendHeld(window.held, failure)) {
            notes.push_back("Digest agent: " + _alerts(window.held.size()) +
                            " could not be sent (" + failure + "); it stays held in \"" +
                            hold_->dir() + "\" and is tried again at the end of the next window");
            window.end = now + std::chrono::milliseconds(settings_.windowMs);
            window.passed = 0;
            ++it;
            continue;
        }
        if (!failure.empty()) {
            notes.push_back("Digest agent: " + _alerts(window.held.size()) + ": " + failure);
        }
        it = windows_.erase(it);
    }
}

bool DigestAgent::sendHeld(const std::vector<std::string>& names, std::string& failure) {
    failure.clear();
    bool handed = false;  // to the delivering agent
    try {
        std::vector<std::string> mails;
        HeldMail first;
        for (const std::string& name : names) {
            HeldMail mail;
            if (!hold_->load(name, mail)) {
                hold_->setAside(name);  // no envelope: not ours to send, but kept
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
            handed = true;
            if (mails.size() == 1) {
                deliver(from, to, mails.front().c_str());
            } else {
                const std::string digest =
                    buildDigest(mails, static_cast<long>(std::time(nullptr)), newMessageId());
                deliver(from, to, digest.c_str());
            }
        }
    } catch (...) {
        failure = Tamtk::internal::abi::current_exception();
        if (!EmailChannel::alertKept(std::current_exception())) {
            return false;
        }
        failure = "kept by the delivering agent: " + failure;
    }
    sentTotal_ += handed ? 1 : 0;
    // Delivered or kept further on: sent again it would arrive twice.
    try {
        hold_->remove(names);
    } catch (const Tamtk::Exception& e) {
        failure += (failure.empty() ? "" : "; ") + std::string(e.what()) +
                   " (it may go out a second time)";
    }
    return true;
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
        flushDue(Clock::now(), notes_);  // told with the next mail
        // A long outage without mail: the latest notes tell the same.
        if (notes_.size() > 8) {
            notes_.erase(notes_.begin(), notes_.end() - 8);
        }
    }
    std::size_t left = 0;
    std::string failure;
    for (auto& entry : windows_) {
        if (!entry.second.held.empty() && !sendHeld(entry.second.held, failure)) {
            left += entry.second.held.size();
        }
    }
    windows_.clear();
    if (left > 0) {
        std::cerr << "Digest agent: " << left << (left == 1 ? " mail stays" : " mails stay")
                  << " held in \"" << hold_->dir() << "\" (" << failure
                  << ") and will be sent when the agent next starts" << std::endl;
    }
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
    if (metrics_) {
        metrics_->stop();
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
        DigestSettings settings;
        std::string passThrough;
        try {
            settings = DigestSettings::fromParams(params);
        } catch (const Tamtk::Exception& e) {
            // Without a delivering agent the mail has nowhere to go: thrown.
            settings = DigestSettings::deliveringOnly(params);
            passThrough = e.what();
        }
        // A hold belongs to one agent: a new configuration of the same hold
        // (the host configured its channel again) takes it over, once the
        // old one has sent what it held.
        for (auto old = agents_.begin(); passThrough.empty() && old != agents_.end(); ++old) {
            if (old->second.hold == settings.hold) {
                old->second.agent->shutdown();
                agents_.erase(old);
                break;
            }
        }
        std::shared_ptr<DigestAgent> agent = std::make_shared<DigestAgent>(settings, passThrough);
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
