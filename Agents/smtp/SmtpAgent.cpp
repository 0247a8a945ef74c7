#include "Agents/smtp/SmtpAgent.h"

#include <ctime>
#include <map>
#include <sstream>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/smtp";
typedef std::chrono::steady_clock _Clock;
const _Clock::time_point _idle = _Clock::time_point::max();

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
      session_(settings_, &stopping_),
      nextPass_(_idle),
      backoff_(settings_.retryFirst) {
    if (spool_ && !spool_->empty()) {
        nextPass_ = _Clock::now();  // left over from an earlier run
    }
    if (spool_) {
        retryThread_ = std::thread(&SmtpAgent::retryLoop, this);
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
}

std::size_t SmtpAgent::waiting() const {
    return spool_ ? spool_->pending().size() : 0;
}

Attempt SmtpAgent::attempt(const std::string& from, const std::vector<std::string>& to,
                           const std::string& wire) {
    std::lock_guard<std::mutex> lock(sessionMutex_);
    return session_.send(from, to, wire);
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
    SpooledMessage spooled{from, to, message, std::time(nullptr)};

    // While the server is known to be down, new messages join the spool at
    // once instead of each waiting for a connection to fail.
    std::string downSince;
    if (spool_) {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (serverDown_ && _Clock::now() < nextPass_) {
            downSince = lastFailure_;
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
        TAMTK_THROW(DeliveryException, _source,
                    "SMTP agent (" << settings_.url << "): the server could not be reached at "
                                   << "the last attempt (" << downSince
                                   << "); the message was kept in the spool \"" << spool_->dir()
                                   << "\" and will be retried");
    }

    const Attempt result = attempt(from, to, toWireFormat(message));
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
        TAMTK_THROW(LostException, _source, describe(settled, to.size()));
    }
    TAMTK_THROW(DeliveryException, _source, describe(settled, to.size()));
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

std::string SmtpAgent::describe(const Settled& s, std::size_t recipients) const {
    std::ostringstream out;
    out << "SMTP agent (" << settings_.url << "): ";
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
            nextPass_ = _Clock::now() + backoff_;
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
        if (!kick_ && _Clock::now() < nextPass_) {
            if (nextPass_ == _idle) {
                wake_.wait(lock);
            } else {
                wake_.wait_until(lock, nextPass_);
            }
            continue;
        }
        kick_ = false;
        lock.unlock();
        const Pass pass = retryPass();
        // Messages spooled while the pass ran count too.
        std::size_t left = pass.remaining;
        try {
            left = spool_->pending().size();
        } catch (const Tamtk::Exception&) {
        }
        lock.lock();
        if (left == 0) {
            nextPass_ = _idle;
            backoff_ = settings_.retryFirst;
            serverDown_ = false;
            continue;
        }
        if (pass.done > 0 && !pass.connectionFailure) {
            backoff_ = settings_.retryFirst;
        }
        if (pass.configurationFault) {
            backoff_ = settings_.retryMax;
        }
        nextPass_ = _Clock::now() + backoff_;
        backoff_ = std::min(backoff_ * 2, settings_.retryMax);
        serverDown_ = pass.connectionFailure;
        if (pass.connectionFailure) {
            lastFailure_ = pass.reason;
        }
    }
}

SmtpAgent::Pass SmtpAgent::retryPass() {
    Pass pass;
    if (!spool_->tryLock()) {
        pass.remaining = 1;  // another process is at it; look again later
        return pass;
    }
    try {
        const std::vector<std::string> names = spool_->pending();
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (stopping_) {
                pass.remaining += names.size() - i;
                break;
            }
            SpooledMessage message;
            try {
                if (!spool_->load(names[i], message)) {
                    continue;
                }
            } catch (const Tamtk::Exception&) {
                spool_->quarantine(names[i]);
                ++pass.done;
                continue;
            }
            const Attempt result =
                attempt(message.from, message.to, toWireFormat(message.message.c_str()));
            const Settled settled = settle(message, result, &names[i]);
            if (settled.temporary.empty() && settled.spoolError.empty() &&
                settled.failedError.empty()) {
                ++pass.done;
            } else {
                ++pass.remaining;
            }
            if (result.connectionFailure) {
                pass.connectionFailure = true;
                pass.configurationFault = result.configurationFault;
                pass.reason = settled.temporary.empty() ? "" : settled.temporary.front().reason;
                pass.remaining += names.size() - i - 1;
                break;
            }
        }
    } catch (...) {
        // The spool itself failed (disk full, removed folder): try again later.
        pass.remaining = std::max<std::size_t>(pass.remaining, 1);
    }
    spool_->unlock();
    return pass;
}

namespace {

// One agent per parameter set, alive until the process ends.
class _Registry {
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
    static _Registry registry;
    return registry.get(params);
}

}  // namespace EmailAgents
}  // namespace Osk
