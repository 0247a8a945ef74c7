#include "Agents/smtp/SmtpAgent.h"

#include <pthread.h>
#include <signal.h>

#include <ctime>
#include <iostream>
#include <map>
#include <sstream>

#include "Agents/common/AgentException.h"
#include "Agents/common/MailHeaders.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/smtp";
const std::chrono::steady_clock::time_point _idle = std::chrono::steady_clock::time_point::max();

// The sender may be empty (the null sender, "MAIL FROM:<>"); a recipient not.
void _checkAddress(const std::string& address, const char* role) {
    if (address.empty() && std::string(role) != "sender") {
        TAMTK_THROW(LostException, _source,
                    "SMTP agent: empty " << role << " address; the alert is lost");
    }
    for (char c : address) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            TAMTK_THROW(LostException, _source,
                        "SMTP agent: the " << role << " address \"" << address
                                           << "\" holds a control character; the alert is lost");
        }
    }
}

bool _sameReason(const std::vector<RecipientOutcome>& outcomes) {
    for (const RecipientOutcome& o : outcomes) {
        if (o.reason != outcomes.front().reason) {
            return false;
        }
    }
    return true;
}

// "a, b (reason)" when all share one reason, else "a (r1), b (r2)".
std::string _list(const std::vector<RecipientOutcome>& outcomes) {
    const bool same = _sameReason(outcomes);
    std::string out;
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        out += (i ? ", " : "") + outcomes[i].address;
        if (!same) {
            out += " (" + outcomes[i].reason + ")";
        }
    }
    if (same) {
        out += " (" + outcomes.front().reason + ")";
    }
    return out;
}

std::vector<std::string> _addresses(const std::vector<RecipientOutcome>& outcomes) {
    std::vector<std::string> out;
    for (const RecipientOutcome& o : outcomes) {
        out.push_back(o.address);
    }
    return out;
}

std::string _failures(const std::vector<RecipientOutcome>& outcomes) {
    std::string out;
    for (const RecipientOutcome& o : outcomes) {
        out += (out.empty() ? "" : "; ") + o.address + ": " + o.reason;
    }
    return out;
}

// The agent's threads take no process signal: a host that waits for input
// expects its signals on its own threads, where they break off the wait.
// They start with every signal blocked.
template <typename Body>
std::thread _quietThread(Body body) {
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    std::thread thread(std::move(body));
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return thread;
}

}  // namespace

struct SmtpAgent::Settled {
    std::size_t delivered = 0;
    std::vector<RecipientOutcome> temporary;
    std::vector<RecipientOutcome> permanent;
    std::string spoolError;   // the spool could not take the temporary part
    std::string failedError;  // failed/ could not take the permanent part
};

SmtpAgent::SmtpAgent(const SmtpSettings& settings)
    : settings_(settings),
      spool_(settings_.spool.empty() ? nullptr : new Spool(settings_.spool)),
      relays_(settings_, &stopping_),
      nextPass_(_idle),
      backoff_(settings_.retryFirst) {
    if (spool_ && spool_->unfinished() && spool_->tryLock()) {
        spool_->removeLeftovers();
        spool_->unlock();
    }
    if (spool_ && settings_.retryAtStart && !spool_->empty()) {
        nextPass_ = Clock::now();  // left over from an earlier run
    }
    if (spool_) {
        retryThread_ = _quietThread([this] { retryLoop(); });
    }
}

SmtpAgent::~SmtpAgent() {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (retryThread_.joinable()) {
        retryThread_.join();
    }
    finishRun();
}

// The process is ending: what waits gets one more pass if time is allowed
// for it, and the operator learns what is left and where.
void SmtpAgent::finishRun() {
    if (!spool_) {
        return;
    }
    try {
        std::size_t left = spool_->pending().size();
        std::size_t delivered = 0;
        std::string why;
        if (left > 0 && settings_.drainMs > 0) {
            const Pass pass =
                drainPass(Clock::now() + std::chrono::milliseconds(settings_.drainMs), false);
            left = pass.result.waiting;
            delivered = pass.result.delivered;
            why = pass.result.locked ? "another process is delivering them"
                  : pass.unreachable ? "the server could not be reached: " + pass.reason
                                     : "";
        }
        if (left == 0 && delivered == 0) {
            return;
        }
        std::ostringstream out;
        out << "SMTP agent (" << settings_.url << "): ";
        if (delivered > 0) {
            out << delivered << " spooled mail" << (delivered == 1 ? "" : "s")
                << " delivered before exit; ";
        }
        out << left << " mail" << (left == 1 ? " waits" : "s wait") << " in the spool \""
            << spool_->dir() << "\"";
        if (!why.empty()) {
            out << " (" << why << ")";
        }
        if (left > 0) {
            out << " and will be sent when the agent next starts";
        }
        std::cerr << out.str() << std::endl;
    } catch (const Tamtk::Exception& e) {
        std::cerr << "SMTP agent (" << settings_.url << "): the spool \"" << spool_->dir()
                  << "\" could not be drained: " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "SMTP agent (" << settings_.url << "): the spool \"" << spool_->dir()
                  << "\" could not be drained" << std::endl;
    }
}

std::size_t SmtpAgent::waiting() const {
    return spool_ ? spool_->pending().size() : 0;
}

void SmtpAgent::send(const std::string& from, const std::vector<std::string>& to,
                     const char* message) {
    TAMTK_ASSERT(message, _source);
    if (to.empty()) {
        TAMTK_THROW(LostException, _source,
                    "SMTP agent: the message has no recipients; the alert is lost");
    }
    _checkAddress(from, "sender");
    for (const std::string& r : to) {
        _checkAddress(r, "recipient");
    }
    // The added headers go into the spool with the message, so that a retry
    // carries the Message-ID of the first attempt.
    SpooledMessage spooled{from, to, missingHeaders(message) + message, std::time(nullptr)};

    // While the server is known to be down or hung, new messages join the
    // spool at once: only the retry thread finds out when it is back.
    std::string downSince;
    if (spool_) {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (serverDown_) {
            downSince = lastFailure_.empty() ? "no answer" : lastFailure_;
        }
    }
    if (!downSince.empty()) {
        try {
            spool_->put(spooled);
        } catch (const Tamtk::Exception& e) {
            TAMTK_THROW(LostException, _source,
                        "SMTP agent (" << settings_.url << "): the server could not be reached at "
                                       << "the last attempt (" << downSince
                                       << ") and the spool could not take the message (" << e.what()
                                       << "); the alert is lost");
        }
        noteSpooled(false, false, downSince);
        TAMTK_THROW(KeptException, _source,
                    "SMTP agent (" << settings_.url << "): the server could not be reached at "
                                   << "the last attempt (" << downSince
                                   << "); the message was kept in the spool \"" << spool_->dir()
                                   << "\" and will be retried");
    }

    Attempt result;
    {
        std::lock_guard<std::mutex> lock(sessionMutex_);
        result = relays_.send(from, to, toWireFormat(spooled.message.c_str()));
    }
    const Settled settled = settle(spooled, result, nullptr);
    if (settled.temporary.empty() && settled.permanent.empty()) {
        noteDelivered();
        return;
    }
    if (!settled.temporary.empty() && settled.spoolError.empty() && spool_) {
        noteSpooled(result.connectionFailure, result.configurationFault,
                    settled.temporary.front().reason);
    }
    // A copy neither delivered nor filed away is lost.
    const bool lost = (!settled.permanent.empty() && !(spool_ && settled.failedError.empty())) ||
                      (!settled.temporary.empty() && !(spool_ && settled.spoolError.empty()));
    if (lost) {
        TAMTK_THROW(LostException, _source, describe(settled, to.size(), result.relay));
    }
    TAMTK_THROW(KeptException, _source, describe(settled, to.size(), result.relay));
}

SmtpAgent::Settled SmtpAgent::settle(const SpooledMessage& message, const Attempt& attempt,
                                     const std::string* spooledAs) {
    Settled s;
    for (const RecipientOutcome& r : attempt.recipients) {
        if (r.fate == Fate::Delivered) {
            ++s.delivered;
        } else {
            (r.fate == Fate::Temporary ? s.temporary : s.permanent).push_back(r);
        }
    }
    if (!spool_) {
        return s;
    }
    // New files first, the old one last: a crash in between may send a
    // message twice but never loses one.
    bool keepOld = false;
    if (!s.permanent.empty()) {
        SpooledMessage refused = message;
        refused.to = _addresses(s.permanent);
        try {
            spool_->putFailed(refused, _failures(s.permanent));
        } catch (const Tamtk::Exception& e) {
            s.failedError = e.what();
            keepOld = spooledAs != nullptr;  // better retried than lost
        }
    }
    if (!s.temporary.empty()) {
        if (spooledAs && s.temporary.size() == message.to.size()) {
            keepOld = true;  // unchanged: it stays as it is
        } else {
            SpooledMessage later = message;
            later.to = _addresses(s.temporary);
            try {
                spool_->put(later);
            } catch (const Tamtk::Exception& e) {
                s.spoolError = e.what();
                keepOld = spooledAs != nullptr;
            }
        }
    }
    if (spooledAs && !keepOld) {
        spool_->remove(*spooledAs);
    }
    return s;
}

std::string SmtpAgent::describe(const Settled& s, std::size_t recipients,
                                const std::string& relay) const {
    std::ostringstream out;
    out << "SMTP agent (" << (relay.empty() ? settings_.url : relay) << "): ";
    const bool whole = s.delivered == 0;
    auto lost = [&](const std::string& error) {
        return spool_ ? "; it could not be stored (" + error + ") and is lost"
                      : std::string("; it is lost: no spool directory is configured");
    };
    if (!s.permanent.empty()) {
        if (whole && s.temporary.empty() && _sameReason(s.permanent)) {
            out << "the server refused the message: " << s.permanent.front().reason;
        } else {
            out << "the server refused " << (whole && s.temporary.empty() ? "all " : "the ")
                << (s.permanent.size() > 1 ? "recipients " : "recipient ") << _list(s.permanent);
        }
        if (spool_ && s.failedError.empty()) {
            out << "; a copy was moved to \"" << spool_->dir() << "/failed\"";
        } else {
            out << lost(s.failedError);
        }
    }
    if (!s.temporary.empty()) {
        if (!s.permanent.empty()) {
            out << "; ";
        }
        if (whole && s.permanent.empty() && _sameReason(s.temporary)) {
            out << "the message could not be delivered now: " << s.temporary.front().reason;
        } else {
            out << "delivery failed for now to " << _list(s.temporary);
        }
        if (spool_ && s.spoolError.empty()) {
            out << "; it was kept in the spool \"" << spool_->dir() << "\" and will be retried";
        } else {
            out << lost(s.spoolError);
        }
    }
    if (!whole) {
        out << "; delivered to the other " << s.delivered << " of " << recipients << " recipients";
    }
    return out.str();
}

void SmtpAgent::noteSpooled(bool connectionFailure, bool configurationFault,
                            const std::string& reason) {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (connectionFailure) {
            serverDown_ = true;
            lastFailure_ = reason;
        }
        if (configurationFault) {
            backoff_ = settings_.retryMax;
        }
        if (nextPass_ == _idle || configurationFault) {
            nextPass_ = Clock::now() + backoff_;
        }
    }
    wake_.notify_all();
}

void SmtpAgent::noteDelivered() {
    if (!spool_) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        serverDown_ = false;
        // The server is back: what waits need not wait for its turn.
        if (nextPass_ != _idle) {
            kick_ = true;
            backoff_ = settings_.retryFirst;
        }
    }
    wake_.notify_all();
}

void SmtpAgent::retryLoop() {
    std::unique_lock<std::mutex> lock(stateMutex_);
    while (!stopping_) {
        if (!kick_ && Clock::now() < nextPass_) {
            if (nextPass_ == _idle) {
                wake_.wait(lock);
            } else {
                wake_.wait_until(lock, nextPass_);
            }
            continue;
        }
        kick_ = false;
        lock.unlock();
        Pass pass;
        try {
            pass = drainPass(Clock::time_point::max(), true);
        } catch (...) {
            // The spool itself failed (disk full, removed folder): try again later.
            pass.result.waiting = 1;
        }
        lock.lock();
        if (pass.result.waiting == 0) {
            nextPass_ = _idle;
            backoff_ = settings_.retryFirst;
            serverDown_ = false;
            continue;
        }
        if (pass.result.delivered + pass.result.failed > 0 && !pass.unreachable) {
            backoff_ = settings_.retryFirst;
        }
        if (pass.configurationFault) {
            backoff_ = settings_.retryMax;
        }
        nextPass_ = Clock::now() + backoff_;
        backoff_ = std::min(backoff_ * 2, settings_.retryMax);
        serverDown_ = pass.unreachable;
        if (pass.unreachable) {
            lastFailure_ = pass.reason;
        }
    }
}

SmtpAgent::DrainResult SmtpAgent::drain(std::chrono::milliseconds budget) {
    if (!spool_) {
        return DrainResult();
    }
    const Clock::time_point deadline = Clock::now() + budget;
    const Pass pass = drainPass(deadline, false);
    if (pass.result.delivered > 0 && !pass.unreachable) {
        noteDelivered();
    } else if (pass.unreachable) {
        noteSpooled(true, pass.configurationFault, pass.reason);
    }
    return pass.result;
}

SmtpAgent::Pass SmtpAgent::drainPass(Clock::time_point deadline, bool background) {
    // A retry pass in this process gives way; another process is kept out by
    // the spool's lock.
    if (!background) {
        ++drainsWaiting_;
    }
    std::unique_lock<std::mutex> hold(drainMutex_);
    if (!background) {
        --drainsWaiting_;
    }
    Pass pass;
    if (!spool_->tryLock()) {
        pass.result.locked = true;
        pass.result.waiting = spool_->pending().size();
        return pass;
    }
    struct Unlock {
        Spool& spool;
        ~Unlock() { spool.unlock(); }
    } unlock{*spool_};

    const std::vector<std::string> names = spool_->pending();
    std::atomic<std::size_t> next{0};
    std::atomic<bool> stopTaking{false};
    std::atomic<bool> abort{false};
    std::mutex passMutex;
    std::condition_variable done;
    const std::size_t count = std::min<std::size_t>(settings_.connections, names.size());
    std::size_t running = count;  // under passMutex once the workers run
    std::vector<std::thread> workers;
    for (std::size_t i = 0; i < count; ++i) {
        workers.push_back(_quietThread([&] {
            drainWorker(names, next, stopTaking, abort, pass, passMutex);
            std::lock_guard<std::mutex> lock(passMutex);
            --running;
            done.notify_all();
        }));
    }
    // This thread keeps the time: past the deadline, or when shutdown or
    // drain() wants the spool, no new message is taken. Transfers under way
    // are cut off only past the deadline, or at a shutdown that allows no
    // drain: a transfer cut after the server took the message would send it
    // again, and each one ends within `timeout` anyway.
    {
        std::unique_lock<std::mutex> lock(passMutex);
        while (running > 0) {
            done.wait_for(lock, std::chrono::milliseconds(20));
            const bool late = Clock::now() >= deadline;
            const bool shutdown = background && stopping_;
            if (late || shutdown || (background && drainsWaiting_ > 0)) {
                stopTaking = true;
            }
            if (late || (shutdown && settings_.drainMs == 0)) {
                abort = true;
            }
        }
    }
    for (std::thread& t : workers) {
        t.join();
    }
    pass.result.waiting = spool_->pending().size();
    return pass;
}

void SmtpAgent::drainWorker(const std::vector<std::string>& names, std::atomic<std::size_t>& next,
                            std::atomic<bool>& stopTaking, std::atomic<bool>& abort, Pass& pass,
                            std::mutex& passMutex) {
    try {
        Relays relays(settings_, &abort);
        while (!stopTaking) {
            const std::size_t i = next++;
            if (i >= names.size()) {
                return;
            }
            SpooledMessage message;
            try {
                if (!spool_->load(names[i], message)) {
                    continue;  // taken meanwhile
                }
            } catch (const Tamtk::Exception& e) {
                spool_->quarantine(names[i]);
                std::lock_guard<std::mutex> lock(passMutex);
                ++pass.result.failed;
                pass.result.problems.push_back(names[i] + ": " + e.what());
                continue;
            }
            const Attempt result =
                relays.send(message.from, message.to, toWireFormat(message.message.c_str()));
            const Settled settled = settle(message, result, &names[i]);
            const bool delivered = settled.temporary.empty() && settled.permanent.empty();
            if (delivered && !abort) {
                std::lock_guard<std::mutex> lock(stateMutex_);
                serverDown_ = false;  // new mail may go out directly again
            }
            std::lock_guard<std::mutex> lock(passMutex);
            if (delivered) {
                ++pass.result.delivered;
                continue;
            }
            if (settled.temporary.empty() && settled.failedError.empty()) {
                ++pass.result.failed;
            }
            pass.result.problems.push_back(names[i] + ": " +
                                           describe(settled, message.to.size(), result.relay));
            if (result.connectionFailure) {
                // The relays are down: the rest waits for the next pass.
                pass.unreachable = true;
                pass.configurationFault = result.configurationFault;
                pass.reason = settled.temporary.empty() ? "" : settled.temporary.front().reason;
                stopTaking = true;
            }
        }
    } catch (const Tamtk::Exception& e) {
        // The spool failed (disk full, folder removed): what is left waits.
        std::lock_guard<std::mutex> lock(passMutex);
        pass.result.problems.push_back(e.what());
        stopTaking = true;
    } catch (const std::exception& e) {
        std::lock_guard<std::mutex> lock(passMutex);
        pass.result.problems.push_back(e.what());
        stopTaking = true;
    }
}

namespace {

// One agent per parameter set, alive until the process ends.
class Registry {
public:
    SmtpAgent& get(const Params& params) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = agents_.find(params);
        if (it == agents_.end()) {
            std::unique_ptr<SmtpAgent> agent(new SmtpAgent(SmtpSettings::fromParams(params)));
            it = agents_.emplace(params, std::move(agent)).first;
        }
        return *it->second;
    }

private:
    std::mutex mutex_;
    std::map<Params, std::unique_ptr<SmtpAgent>> agents_;
};

}  // namespace

SmtpAgent& smtpAgentFor(const Params& params) {
    // libcurl (and with it OpenSSL, which cleans up at exit) is set up before
    // the registry exists, so the registry and its connections are torn down
    // first.
    static const bool curlReady = (SmtpSession::initialise(), true);
    (void)curlReady;
    static Registry registry;
    return registry.get(params);
}

}  // namespace EmailAgents
}  // namespace Osk
