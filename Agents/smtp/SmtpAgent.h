#pragma once

// The SMTP agent: delivers through its relays and loses nothing. What they
// cannot take now waits in the spool and is retried in the background over
// several connections, with a growing pause; what they refuse for good is
// kept in the spool's failed/ folder. Every shortfall is reported to the
// caller by an exception that says where the message went. While the relays
// are known to be down or hung, new messages go straight to the spool and
// only the background retries try them. When the agent is torn down, it
// spends a bounded time delivering what still waits.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Agents/smtp/Relays.h"
#include "Agents/smtp/SmtpSettings.h"
#include "Agents/smtp/Spool.h"

namespace Osk {
namespace EmailAgents {

class SmtpAgent {
public:
    struct DrainResult {
        std::size_t delivered = 0;
        std::size_t failed = 0;  // moved to failed/
        std::size_t waiting = 0;
        bool locked = false;                // another process holds the spool
        std::vector<std::string> problems;  // one text per mail not delivered
    };

    // Removes what a crash left in the spool's tmp/ and starts the retry
    // thread; a spool left by an earlier run is retried at once.
    explicit SmtpAgent(const SmtpSettings& settings);
    // Stops the retry thread (a transfer under way is cut off), then drains
    // the spool for at most `drain` seconds and tells on standard error what
    // still waits.
    ~SmtpAgent();
    SmtpAgent(const SmtpAgent&) = delete;
    SmtpAgent& operator=(const SmtpAgent&) = delete;

    // Sends `message` (line feeds; sent as CR LF) from the envelope sender
    // `from` to each of `to` (plain addresses), behind the Message-ID and
    // Auto-Submitted lines it lacks. Throws DeliveryException when any
    // recipient did not get it, telling whether it waits in the spool, sits
    // in failed/, or is lost because there is no spool.
    void send(const std::string& from, const std::vector<std::string>& to, const char* message);

    // Delivers what waits in the spool, now, over `connections` connections,
    // for at most `budget`; stops early when the relays cannot be reached.
    // A retry pass under way gives way first.
    DrainResult drain(std::chrono::milliseconds budget);

    const SmtpSettings& settings() const { return settings_; }
    // Messages waiting in the spool (0 without a spool).
    std::size_t waiting() const;

private:
    struct Settled;
    struct Pass {
        DrainResult result;
        bool unreachable = false;  // no relay could be reached
        bool configurationFault = false;
        std::string reason;
    };
    typedef std::chrono::steady_clock Clock;

    // Files what the attempt did not deliver: the temporarily refused part
    // into the spool, the refused part into failed/. `spooledAs` is the
    // message's spool file when it came from there.
    Settled settle(const SpooledMessage& message, const Attempt& attempt,
                   const std::string* spooledAs);
    std::string describe(const Settled& settled, std::size_t recipients,
                         const std::string& relay) const;

    // One pass over the spool with `connections` workers until `deadline`.
    // `background`: a retry pass, which gives way to drain() and shutdown.
    Pass drainPass(Clock::time_point deadline, bool background);
    void drainWorker(const std::vector<std::string>& names, std::atomic<std::size_t>& next,
                     std::atomic<bool>& stopTaking, std::atomic<bool>& abort, Pass& pass,
                     std::mutex& passMutex);
    void retryLoop();
    void noteSpooled(bool connectionFailure, bool configurationFault, const std::string& reason);
    void noteDelivered();
    void finishRun();

    const SmtpSettings settings_;
    std::atomic<bool> stopping_{false};
    std::unique_ptr<Spool> spool_;

    std::mutex sessionMutex_;  // one transaction at a time on the send path
    Relays relays_;

    std::mutex drainMutex_;  // one pass over the spool at a time in this process
    std::atomic<int> drainsWaiting_{0};

    std::mutex stateMutex_;
    std::condition_variable wake_;
    bool kick_ = false;
    Clock::time_point nextPass_;
    std::chrono::milliseconds backoff_;
    bool serverDown_ = false;
    std::string lastFailure_;
    std::thread retryThread_;
};

// The agent for one set of parameters: made on first use and kept for the
// life of the process. Throws AgentParamException for bad parameters.
SmtpAgent& smtpAgentFor(const Params& params);

}  // namespace EmailAgents
}  // namespace Osk
