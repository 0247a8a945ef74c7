#pragma once

// The delivery engine: everything an agent does around sending, apart from
// how one message is sent (its Transport).
//
// Contract:
// - send() tries the mail once through the sending path's transport and
//   settles the outcome per recipient: delivered; refused for now, kept in
//   the spool's new/ and retried in the background with a pause that
//   doubles from retryFirst to retryMax; refused for good, kept in the
//   spool's failed/. It returns only when every recipient got the mail.
//   Otherwise it throws KeptException when every part not delivered is
//   kept, and LostException when any part is not (no spool, or the spool
//   could not take it); the text says where each part went. An envelope
//   that cannot be sent (no recipient, a control character in an address)
//   is lost at once.
// - Dead-server fast path: once an attempt found the destination
//   unreachable (Attempt::connectionFailure), new mail goes straight into
//   the spool without an attempt of its own, until a delivery (a retry or
//   drain()) shows it is back. A configuration fault is retried only at
//   retryMax.
// - Settling writes new files first and removes the old one last: a crash
//   in between may send a mail twice but never loses one.
// - drain() and the background retries deliver the spool over `connections`
//   transports side by side under the spool's lock (another process with
//   the lock is left alone). A spooled file that is not spooled mail, or
//   whose envelope could not be sent, is moved to failed/ as it is and
//   reported, never sent.
// - Queue-first (EngineSettings::queue): send() only puts the mail in the
//   spool and starts a background pass at once; it returns once the mail is
//   safe there. What becomes of it later goes to standard error.
// - A pause the server asks for (Attempt::leastPause) holds back every
//   attempt of the engine, in sending and in retrying, until it has passed.
// - Every outcome is counted (AgentMetrics.h); publishMetrics() writes the
//   counts with the spool's figures to a file while the engine lives.
// - When the engine is destroyed, the background stops and what waits gets
//   up to `drainMs` more; a line on standard error then says how many mails
//   still wait and why.
// - Thread-safe: send(), drain() and waiting() may be called from any
//   thread. The engine's own threads block every signal.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Agents/common/AgentMetrics.h"
#include "Agents/common/AgentParams.h"
#include "Agents/common/DeliveryWording.h"
#include "Agents/common/Transport.h"
#include "Osk/EmailAgent.h"

namespace Osk {
namespace EmailAgents {

class Spool;
struct SpooledMessage;

struct EngineSettings {
    std::string agent;         // how reports name the agent: "SMTP agent"
    std::string destination;   // named when an attempt names no place of its own
    std::string spool;         // its folder; "" for none
    long drainMs = 30000;      // spent on the spool when the engine ends; 0: none
    unsigned connections = 2;  // transports draining the spool side by side
    std::chrono::milliseconds retryFirst{1000};
    std::chrono::milliseconds retryMax{60000};
    // Retry what an earlier run left in the spool as soon as the engine
    // starts. Off for a caller that drains the spool itself and wants every
    // outcome in its own result.
    bool retryAtStart = true;
    // Deliver in the background only: send() returns once the mail is
    // spooled. Needs a spool.
    bool queue = false;
};

class DeliveryEngine {
public:
    struct DrainResult {
        std::size_t delivered = 0;
        std::size_t failed = 0;  // moved to failed/
        std::size_t waiting = 0;
        bool locked = false;                // another process holds the spool
        std::vector<std::string> problems;  // one text per mail not delivered
    };

    // Refuses a spool folder others may write to, and queue without a spool
    // (AgentParamException);
    // removes what a crash left in the spool's tmp/ and starts the retry
    // thread; a spool left by an earlier run is retried at once.
    DeliveryEngine(const EngineSettings& settings, std::unique_ptr<TransportFactory> transports);
    virtual ~DeliveryEngine();
    DeliveryEngine(const DeliveryEngine&) = delete;
    DeliveryEngine& operator=(const DeliveryEngine&) = delete;

    // Sends `message` (line feeds) from `from` to each of `to` (plain
    // addresses), behind the Message-ID and Auto-Submitted lines it lacks,
    // which a spooled copy keeps for its retries.
    void send(const std::string& from, const std::vector<std::string>& to, const char* message);

    // Delivers what waits in the spool, now, for at most `budget`; stops
    // early when the destination cannot be reached. A retry pass under way
    // gives way first.
    DrainResult drain(std::chrono::milliseconds budget);

    // Messages waiting in the spool (0 without a spool).
    std::size_t waiting() const;

    // Writes the engine's figures to `path` every few seconds, and a last
    // time after the drain at its end: the counts of AgentMetrics.h and
    //   email_agent_spool_waiting              mails waiting in the spool
    //   email_agent_spool_oldest_age_seconds   the oldest one's age; 0: none
    void publishMetrics(const std::string& path);
    std::string metricsText() const;

private:
    struct Pass {
        DrainResult result;
        bool unreachable = false;  // the destination could not be reached
        bool configurationFault = false;
        std::chrono::milliseconds leastPause{0};  // the longest one asked for
        std::string reason;
        std::vector<std::string> quarantined;  // reports of files moved to failed/
    };
    typedef std::chrono::steady_clock Clock;

    // Files what the attempt did not deliver: the temporarily refused part
    // into the spool, the refused part into failed/. `spooledAs` is the
    // message's spool file when it came from there.
    Settled settle(const SpooledMessage& message, const Attempt& attempt,
                   const std::string* spooledAs);

    // One pass over the spool with `connections` workers until `deadline`.
    // `background`: a retry pass, which gives way to drain() and shutdown.
    Pass drainPass(Clock::time_point deadline, bool background);
    void drainWorker(const std::vector<std::string>& names, std::atomic<std::size_t>& next,
                     std::atomic<bool>& stopTaking, std::atomic<bool>& abort, Pass& pass,
                     std::mutex& passMutex);
    // Reads a spooled message and checks its envelope; false when it is
    // gone or was moved to failed/ (then counted in `pass`).
    bool take(const std::string& name, SpooledMessage& message, Pass& pass, std::mutex& passMutex);
    void retryLoop();
    // Counts what an attempt came to; `retried`: the mail came from the spool.
    void countSettled(const Settled& settled, const Attempt& attempt, double seconds, bool retried);
    void noteSpooled(bool connectionFailure, bool configurationFault, const std::string& reason,
                     std::chrono::milliseconds leastPause = std::chrono::milliseconds(0));
    // Queue-first: keeps the mail in the spool and starts a pass.
    void enqueue(const SpooledMessage& message);
    // Waits out a pause the server asked for; false when it lasts past
    // `deadline` (or a background pass must give way first).
    bool waitForPause(Clock::time_point deadline, bool background);
    void noteDelivered();
    void finishRun();

    const EngineSettings settings_;
    const DeliveryWording wording_;
    const std::unique_ptr<TransportFactory> transports_;
    std::atomic<bool> stopping_{false};
    std::unique_ptr<Spool> spool_;

    std::mutex sessionMutex_;  // one transaction at a time on the send path
    std::unique_ptr<Transport> transport_;

    std::mutex drainMutex_;  // one pass over the spool at a time in this process
    std::atomic<int> drainsWaiting_{0};

    std::mutex stateMutex_;
    std::condition_variable wake_;
    bool kick_ = false;
    Clock::time_point nextPass_;
    std::chrono::milliseconds backoff_;
    bool serverDown_ = false;
    Clock::time_point holdUntil_;  // no attempt before: the server's pause
    std::string lastFailure_;
    std::thread retryThread_;
    AgentMetrics metrics_;
    std::unique_ptr<Tamtk::MetricsFile> metricsFile_;
};

// A plug-in's delivery: the engine `find` returns (what it throws is a
// loss: no engine, nothing keeps the mail) sends the channel's mail to the
// plain addresses of `to`.
void deliverThrough(const std::function<DeliveryEngine&()>& find, const Tamnet::EmailAddr& from,
                    const EmailChannel::ToList& to, const char* message);

// One engine per parameter set, made on first use and kept for the life of
// the process (so that its spool is drained when the process ends).
template <class Engine>
class EngineRegistry {
public:
    // `make(params)` returns a new Engine*; what it throws goes to the caller.
    template <class Make>
    Engine& get(const Params& params, Make make) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = engines_.find(params);
        if (it == engines_.end()) {
            it = engines_.emplace(params, std::unique_ptr<Engine>(make(params))).first;
            // The agent's reader has accepted the parameter by now.
            const auto metrics = params.find("metrics");
            if (metrics != params.end() && !metrics->second.empty()) {
                it->second->publishMetrics(metrics->second);
            }
        }
        return *it->second;
    }

private:
    std::mutex mutex_;
    std::map<Params, std::unique_ptr<Engine>> engines_;
};

}  // namespace EmailAgents
}  // namespace Osk
