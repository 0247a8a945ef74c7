#pragma once

// Flood control that loses nothing. For each sender and recipient list the
// first `burst` mails of a window go straight to the delivering agent; the
// rest of the window's mail is held on disk and goes out when the window
// ends, as one digest (or as itself when it is alone). Held mail that could
// not go out stays held and is tried again at the end of the next window;
// mail the delivering agent delivered or kept leaves the hold and is never
// sent again. At process end everything held goes out at once, and what a
// killed process held is found and sent by the next one. Mail that cannot be
// held (a full disk, a hold another process has, bad parameters of the
// digest's own) goes straight to the delivering agent.
//
// With a metrics file (parameter "metrics"; Toolkit/Metrics.h), the agent
// writes there while it lives:
//   email_digest_held_total   mails held for a digest
//   email_digest_sent_total   digests (or lone held mails) the delivering agent took
//   email_digest_holding      mails in the hold now

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Agents/digest/DigestSettings.h"
#include "Agents/digest/Hold.h"
#include "Osk/EmailAgent.h"
#include "Toolkit/Metrics.h"

namespace Osk {
namespace EmailAgents {

class DigestAgent {
public:
    // Opens the delivering agent through the toolkit's component loader
    // (its errors surface here) and takes over what the hold already holds.
    // With `passThrough` (why the digest cannot hold), or when the hold
    // cannot be taken, every mail goes straight through; standard error
    // says so once.
    explicit DigestAgent(const DigestSettings& settings, const std::string& passThrough = "");
    ~DigestAgent();
    DigestAgent(const DigestAgent&) = delete;
    DigestAgent& operator=(const DigestAgent&) = delete;

    // Passes the mail on or holds it. A mail passed on answers as the
    // delivering agent did; a held one throws KeptException. A held digest
    // that failed since the last call is told with this mail as a
    // KeptException (it stays held), unless this mail itself is lost.
    void send(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to, const char* message);

    // Sends everything held now, whatever its window, and writes the metrics
    // file a last time; later mail goes straight through. Failures leave the
    // mail held for the next run.
    void shutdown() noexcept;

    std::size_t held() const;
    bool holding() const { return hold_ != nullptr; }

private:
    typedef std::chrono::steady_clock Clock;
    struct Window {
        Clock::time_point end;
        unsigned long passed = 0;
        std::vector<std::string> held;  // names in the hold, oldest first
    };

    void takeOver();
    void timerLoop();
    // Sends the held mail of every window that has ended; what failed is
    // told in `notes`. Called with mutex_ held.
    void flushDue(Clock::time_point now, std::vector<std::string>& notes);
    // Sends held mail as one digest (or as itself when alone); true when it
    // left the hold, else `why` says what failed and it stays held.
    bool sendHeld(const std::vector<std::string>& names, std::string& why);
    void deliver(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to,
                 const char* message);
    // Passes a mail on; `notes` go with its answer (see send()).
    void passOn(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to, const char* message,
                std::vector<std::string>& notes);

    const DigestSettings settings_;
    EmailChannel::SendEmailFn* inner_;
    std::unique_ptr<Hold> hold_;  // none: every mail passes through
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::map<std::string, Window> windows_;  // by sender and recipient list
    std::vector<std::string> notes_;         // failures of digests the timer sent
    bool holdFailing_ = false;               // the last mail could not be held
    bool stopping_ = false;
    std::thread timer_;
    std::atomic<unsigned long> heldTotal_{0};
    std::atomic<unsigned long> sentTotal_{0};
    std::unique_ptr<Tamtk::MetricsFile> metrics_;
};

// One agent per parameter set, alive until the process ends (or the
// library is unloaded), when its held mail goes out. A parameter set with
// the hold of an earlier one replaces it.
std::shared_ptr<DigestAgent> digestAgentFor(const Params& params);

}  // namespace EmailAgents
}  // namespace Osk
