#pragma once

// The SMTP agent: delivers through one SMTP server and loses nothing. What
// the server cannot take now waits in the spool and is retried in the
// background, oldest first, with a growing pause; what it refuses for good is
// kept in the spool's failed/ folder. Every shortfall is reported to the
// caller by an exception that says where the message went.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Agents/smtp/SmtpSession.h"
#include "Agents/smtp/SmtpSettings.h"
#include "Agents/smtp/Spool.h"

namespace Osk {
namespace EmailAgents {

class SmtpAgent {
  public:
    // Starts the retry thread; a spool left by an earlier run is retried at once.
    explicit SmtpAgent(const SmtpSettings& settings);
    // Stops the retry thread (a transfer under way is cut off).
    ~SmtpAgent();
    SmtpAgent(const SmtpAgent&) = delete;
    SmtpAgent& operator=(const SmtpAgent&) = delete;

    // Sends `message` (line feeds; sent as CR LF) from the envelope sender
    // `from` to each of `to` (plain addresses). Throws DeliveryException when
    // any recipient did not get it, telling whether it waits in the spool,
    // sits in failed/, or is lost because there is no spool.
    void send(const std::string& from, const std::vector<std::string>& to, const char* message);

    const SmtpSettings& settings() const { return settings_; }
    // Messages waiting in the spool (0 without a spool).
    std::size_t waiting() const;

  private:
    struct Settled;
    struct Pass {
        std::size_t remaining = 0;
        std::size_t done = 0;  // delivered or moved to failed/
        bool connectionFailure = false;
        bool configurationFault = false;
        std::string reason;
    };

    Attempt attempt(const std::string& from, const std::vector<std::string>& to,
                    const std::string& wire);
    // Files what the attempt did not deliver: the temporarily refused part
    // into the spool, the refused part into failed/. `spooledAs` is the
    // message's spool file when it came from there.
    Settled settle(const SpooledMessage& message, const Attempt& attempt,
                   const std::string* spooledAs);
    std::string describe(const Settled& settled, std::size_t recipients) const;

    void retryLoop();
    Pass retryPass();
    void noteSpooled(bool connectionFailure, bool configurationFault, const std::string& reason);
    void noteDelivered();

    const SmtpSettings settings_;
    std::atomic<bool> stopping_{false};
    std::unique_ptr<Spool> spool_;

    std::mutex sessionMutex_;  // one transaction at a time on the connection
    SmtpSession session_;

    std::mutex stateMutex_;
    std::condition_variable wake_;
    bool kick_ = false;
    std::chrono::steady_clock::time_point nextPass_;
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
