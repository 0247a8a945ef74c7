#include "Agents/common/DeliveryEngine.h"

#include <cstdlib>
#include <ctime>
#include <iostream>

#include "Agents/common/AgentException.h"
#include "Agents/common/MailHeaders.h"
#include "Agents/common/Spool.h"
#include "Toolkit/QuietThread.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/DeliveryEngine";
const std::chrono::steady_clock::time_point _idle = std::chrono::steady_clock::time_point::max();

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

// The first address of the envelope that cannot be sent, as the problem; "".
std::string _envelopeProblem(const DeliveryWording& wording, const std::string& from,
                             const std::vector<std::string>& to) {
    std::string problem = wording.addressProblem(from, "sender");
    for (std::size_t i = 0; i < to.size() && problem.empty(); ++i) {
        problem = wording.addressProblem(to[i], "recipient");
    }
    return problem;
}

// The cause the transport named, or else the one its flags and the fate tell.
Cause _cause(const Attempt& attempt, const RecipientOutcome& outcome) {
    return outcome.cause != Cause::Unknown   ? outcome.cause
           : attempt.configurationFault      ? Cause::Config
           : attempt.connectionFailure       ? Cause::Connect
           : outcome.fate == Fate::Permanent ? Cause::Permanent
                                             : Cause::Temporary;
}

void _report(const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        std::cerr << line << std::endl;
    }
}

}  // namespace

DeliveryEngine::DeliveryEngine(const EngineSettings& settings,
                               std::unique_ptr<TransportFactory> transports)
    : settings_(settings),
      wording_(settings_.agent, settings_.destination, settings_.spool),
      transports_(std::move(transports)),
      spool_(settings_.spool.empty()
                 ? nullptr
                 : new Spool(settings_.spool, settings_.agent + ": parameter \"spool\"")),
      transport_(transports_->make(&stopping_)),
      nextPass_(_idle),
      backoff_(settings_.retryFirst),
      holdUntil_(Clock::time_point::min()) {
    if (settings_.queue && !spool_) {
        TAMTK_THROW(AgentParamException, _source,
                    settings_.agent << ": parameter \"queue\" needs a \"spool\"");
    }
    if (spool_ && spool_->unfinished() && spool_->tryLock()) {
        spool_->removeLeftovers();
        spool_->unlock();
    }
    if (spool_ && settings_.retryAtStart && !spool_->empty()) {
        nextPass_ = Clock::now();  // left over from an earlier run
    }
    if (spool_) {
        retryThread_ = Tamtk::quietThread([this] { retryLoop(); });
    }
}

DeliveryEngine::~DeliveryEngine() {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (retryThread_.joinable()) {
        retryThread_.join();
    }
    finishRun();
    if (metricsFile_) {
        metricsFile_->stop();  // the figures after the last drain
    }
}

void DeliveryEngine::publishMetrics(const std::string& path) {
    metricsFile_.reset(new Tamtk::MetricsFile(path, [this] { return metricsText(); }));
}

std::string DeliveryEngine::metricsText() const {
    Tamtk::MetricsText out;
    metrics_.write(out);
    const std::vector<std::string> names = spool_ ? spool_->pending() : std::vector<std::string>();
    // Spooled names begin with the second they were made.
    const double oldest =
        names.empty() ? 0
                      : std::difftime(std::time(nullptr),
                                      static_cast<std::time_t>(std::atoll(names.front().c_str())));
    out.single("email_agent_spool_waiting", "gauge", "Mails waiting in the spool.",
               static_cast<double>(names.size()));
    out.single("email_agent_spool_oldest_age_seconds", "gauge",
               "Age of the oldest mail waiting in the spool; 0 when none waits.",
               oldest > 0 ? oldest : 0);
    transports_->writeMetrics(out);
    return out.str();
}

void DeliveryEngine::countSettled(const Settled& settled, const Attempt& attempt, double seconds,
                                  bool retried) {
    typedef AgentMetrics::Outcome Outcome;
    if (settled.complete()) {
        metrics_.delivered(seconds);
        return;
    }
    if (!settled.permanent.empty()) {
        const Cause cause = _cause(attempt, settled.permanent.front());
        if (spool_ && settled.failedError.empty()) {
            metrics_.count(Outcome::Refused, cause);
        } else if (!retried) {
            metrics_.count(Outcome::Lost, spool_ ? Cause::Disk : cause);
        }
    }
    // A retried mail that waits again was counted when it first did.
    if (!settled.temporary.empty() && !retried) {
        const bool kept = spool_ && settled.spoolError.empty();
        metrics_.count(kept ? Outcome::Spooled : Outcome::Lost,
                       spool_ && !kept ? Cause::Disk : _cause(attempt, settled.temporary.front()));
    }
}

// The process is ending: what waits gets one more pass if time is allowed
// for it, and the operator learns what is left and where.
void DeliveryEngine::finishRun() {
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
            _report(pass.quarantined);
            left = pass.result.waiting;
            delivered = pass.result.delivered;
            why = pass.result.locked ? "another process is delivering them"
                  : pass.unreachable ? "the server could not be reached: " + pass.reason
                                     : "";
        }
        if (left > 0 || delivered > 0) {
            std::cerr << wording_.exitReport(delivered, left, why) << std::endl;
        }
    } catch (const Tamtk::Exception& e) {
        std::cerr << wording_.drainFailed(e.what()) << std::endl;
    } catch (...) {
        std::cerr << wording_.drainFailed("") << std::endl;
    }
}

std::size_t DeliveryEngine::waiting() const {
    return spool_ ? spool_->pending().size() : 0;
}

void DeliveryEngine::send(const std::string& from, const std::vector<std::string>& to,
                          const char* message) {
    TAMTK_ASSERT(message, _source);
    if (to.empty()) {
        metrics_.count(AgentMetrics::Outcome::Lost, Cause::Config);
        TAMTK_THROW(LostException, _source, wording_.noRecipients());
    }
    const std::string problem = _envelopeProblem(wording_, from, to);
    if (!problem.empty()) {
        metrics_.count(AgentMetrics::Outcome::Lost, Cause::Config);
        TAMTK_THROW(LostException, _source, wording_.unsendable(problem));
    }
    // The added headers go into the spool with the message, so that a retry
    // carries the Message-ID of the first attempt.
    SpooledMessage spooled{from, to, missingHeaders(message) + message, std::time(nullptr)};

    if (settings_.queue) {
        enqueue(spooled);
        return;  // accepted, as a relay's 250: what follows is the engine's to report
    }

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
            metrics_.count(AgentMetrics::Outcome::Lost, Cause::Disk);
            TAMTK_THROW(LostException, _source, wording_.lostWhileDown(downSince, e.what()));
        }
        metrics_.count(AgentMetrics::Outcome::Spooled, Cause::Connect);
        noteSpooled(false, false, downSince);
        TAMTK_THROW(KeptException, _source, wording_.keptWhileDown(downSince));
    }

    Attempt result;
    const Clock::time_point taken = Clock::now();
    {
        std::lock_guard<std::mutex> lock(sessionMutex_);
        result = transport_->send(from, to, spooled.message);
    }
    const Settled settled = settle(spooled, result, nullptr);
    countSettled(settled, result, std::chrono::duration<double>(Clock::now() - taken).count(),
                 false);
    if (settled.complete()) {
        noteDelivered();
        return;
    }
    if (!settled.temporary.empty() && settled.spoolError.empty() && spool_) {
        noteSpooled(result.connectionFailure, result.configurationFault,
                    settled.temporary.front().reason, result.leastPause);
    }
    const std::string text = wording_.settled(settled, to.size(), result.relay);
    if (settled.lost(spool_ != nullptr)) {
        TAMTK_THROW(LostException, _source, text);
    }
    TAMTK_THROW(KeptException, _source, text);
}

void deliverThrough(const std::function<DeliveryEngine&()>& find, const Tamnet::EmailAddr& from,
                    const EmailChannel::ToList& to, const char* message) {
    DeliveryEngine* found = nullptr;
    try {
        found = &find();
    } catch (const Tamtk::Exception& e) {
        throwLost(e);  // no agent for these parameters: nothing can keep the mail
    }
    std::vector<std::string> recipients;
    recipients.reserve(to.size());
    for (const Tamnet::EmailAddr& r : to) {
        recipients.push_back(r.asPlainString(false));
    }
    found->send(from.asPlainString(false), recipients, message);
}

Settled DeliveryEngine::settle(const SpooledMessage& message, const Attempt& attempt,
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

void DeliveryEngine::enqueue(const SpooledMessage& message) {
    try {
        spool_->put(message);
    } catch (const Tamtk::Exception& e) {
        metrics_.count(AgentMetrics::Outcome::Lost, Cause::Disk);
        TAMTK_THROW(LostException, _source, wording_.notQueued(e.what()));
    }
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        // While the server is down the mail waits for the next pass due,
        // like the rest; otherwise it goes out now, not at the backoff's pace.
        if (!serverDown_) {
            kick_ = true;
        } else if (nextPass_ == _idle) {
            nextPass_ = Clock::now() + backoff_;
        }
    }
    wake_.notify_all();
}

void DeliveryEngine::noteSpooled(bool connectionFailure, bool configurationFault,
                                 const std::string& reason, std::chrono::milliseconds leastPause) {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (leastPause.count() > 0) {
            holdUntil_ = std::max(holdUntil_, Clock::now() + leastPause);
        }
        if (connectionFailure || leastPause.count() > 0) {
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

void DeliveryEngine::noteDelivered() {
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

void DeliveryEngine::retryLoop() {
    std::unique_lock<std::mutex> lock(stateMutex_);
    while (!stopping_) {
        // A kick does not cut short a pause the server asked for.
        const Clock::time_point due = std::max(kick_ ? Clock::now() : nextPass_, holdUntil_);
        if (Clock::now() < due) {
            if (due == _idle) {
                wake_.wait(lock);
            } else {
                wake_.wait_until(lock, due);
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
        _report(pass.quarantined);
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
        if (pass.leastPause.count() > 0) {
            // The server said when: no guessing, and no longer pause after.
            holdUntil_ = std::max(holdUntil_, Clock::now() + pass.leastPause);
            nextPass_ = holdUntil_;
        } else {
            nextPass_ = Clock::now() + backoff_;
            backoff_ = std::min(backoff_ * 2, settings_.retryMax);
        }
        serverDown_ = pass.unreachable;
        if (pass.unreachable) {
            lastFailure_ = pass.reason;
        }
    }
}

DeliveryEngine::DrainResult DeliveryEngine::drain(std::chrono::milliseconds budget) {
    if (!spool_) {
        return DrainResult();
    }
    const Clock::time_point deadline = Clock::now() + budget;
    const Pass pass = drainPass(deadline, false);
    if (pass.result.delivered > 0 && !pass.unreachable) {
        noteDelivered();
    } else if (pass.unreachable) {
        noteSpooled(true, pass.configurationFault, pass.reason, pass.leastPause);
    }
    return pass.result;
}

DeliveryEngine::Pass DeliveryEngine::drainPass(Clock::time_point deadline, bool background) {
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

    if (!waitForPause(deadline, background)) {
        pass.unreachable = true;
        pass.reason = "the server asked for a pause";
        pass.result.waiting = spool_->pending().size();
        return pass;
    }
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
        workers.push_back(Tamtk::quietThread([&] {
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
    // again, and each one ends within the transport's timeout anyway.
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

bool DeliveryEngine::waitForPause(Clock::time_point deadline, bool background) {
    for (;;) {
        Clock::time_point hold;
        {
            std::lock_guard<std::mutex> lock(stateMutex_);
            hold = holdUntil_;
        }
        const Clock::time_point now = Clock::now();
        if (now >= hold) {
            return true;
        }
        if (hold > deadline || (background && (stopping_ || drainsWaiting_ > 0))) {
            return false;
        }
        std::this_thread::sleep_for(
            std::min<Clock::duration>(hold - now, std::chrono::milliseconds(20)));
    }
}

bool DeliveryEngine::take(const std::string& name, SpooledMessage& message, Pass& pass,
                          std::mutex& passMutex) {
    std::string problem;
    try {
        if (!spool_->load(name, message)) {
            return false;  // taken meanwhile
        }
        // Written by this engine the envelope passed this check; a file put
        // there by hand must not carry a line break into a command.
        problem = _envelopeProblem(wording_, message.from, message.to);
        if (problem.empty()) {
            return true;
        }
        problem = "\"" + spool_->folder(SpoolState::Waiting) + "/" + name + "\": " + problem;
    } catch (const DeliveryException& e) {
        problem = e.what();
    }
    spool_->quarantine(name);
    metrics_.count(AgentMetrics::Outcome::Refused, Cause::Config);
    const std::string report = wording_.quarantined(problem);
    std::lock_guard<std::mutex> lock(passMutex);
    ++pass.result.failed;
    pass.result.problems.push_back(name + ": " + report);
    pass.quarantined.push_back(report);
    return false;
}

void DeliveryEngine::drainWorker(const std::vector<std::string>& names,
                                 std::atomic<std::size_t>& next, std::atomic<bool>& stopTaking,
                                 std::atomic<bool>& abort, Pass& pass, std::mutex& passMutex) {
    try {
        const std::unique_ptr<Transport> transport = transports_->make(&abort);
        while (!stopTaking) {
            const std::size_t i = next++;
            if (i >= names.size()) {
                return;
            }
            SpooledMessage message;
            if (!take(names[i], message, pass, passMutex)) {
                continue;
            }
            const Attempt result = transport->send(message.from, message.to, message.message);
            const Settled settled = settle(message, result, &names[i]);
            countSettled(settled, result, std::difftime(std::time(nullptr), message.queued), true);
            if (settled.complete() && !abort) {
                std::lock_guard<std::mutex> lock(stateMutex_);
                serverDown_ = false;  // new mail may go out directly again
            } else if (result.leastPause.count() > 0) {
                std::lock_guard<std::mutex> lock(stateMutex_);
                holdUntil_ = std::max(holdUntil_, Clock::now() + result.leastPause);
            }
            std::lock_guard<std::mutex> lock(passMutex);
            if (settled.complete()) {
                ++pass.result.delivered;
                continue;
            }
            if (settled.temporary.empty() && settled.failedError.empty()) {
                ++pass.result.failed;
            }
            const std::string text = wording_.settled(settled, message.to.size(), result.relay);
            pass.result.problems.push_back(names[i] + ": " + text);
            if (settings_.queue && !settled.permanent.empty()) {
                // No caller hears of queued mail: the operator must.
                pass.quarantined.push_back(text);
            }
            pass.leastPause = std::max(pass.leastPause, result.leastPause);
            if (result.connectionFailure || result.leastPause.count() > 0) {
                // The destination is down: the rest waits for the next pass.
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

}  // namespace EmailAgents
}  // namespace Osk
