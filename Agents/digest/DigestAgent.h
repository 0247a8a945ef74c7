#pragma once

// Flood control that loses nothing. For each sender and recipient list the
// first `burst` mails of a window go straight to the delivering agent; the
// rest of the window's mail is held on disk and goes out when the window
// ends, as one digest (or as itself when it is alone). Held mail that could
// not go out stays held and is tried again at the end of the next window;
// at process end everything held goes out at once, and what a killed
// process held is found and sent by the next one.

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

namespace Osk {
namespace EmailAgents {

class DigestAgent {
public:
    // Opens the delivering agent through the toolkit's component loader
    // (its errors surface here) and takes over what the hold already holds.
    explicit DigestAgent(const DigestSettings& settings);
    ~DigestAgent();
    DigestAgent(const DigestAgent&) = delete;
    DigestAgent& operator=(const DigestAgent&) = delete;

    // Passes the mail on or holds it. Throws what the delivering agent
    // threw for this mail, or else for a digest that failed since the last
    // call (that mail stays held).
    void send(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to, const char* message);

    // Sends everything held now, whatever its window; later mail goes
    // straight through. Failures leave the mail held for the next run.
    void shutdown() noexcept;

    std::size_t held() const;

private:
    typedef std::chrono::steady_clock Clock;
    struct Window {
        Clock::time_point end;
        unsigned long passed = 0;
        std::vector<std::string> held;  // names in the hold, oldest first
    };

    void timerLoop();
    // Sends the held mail of every window that has ended; the first failure
    // goes to `failure`. Called with mutex_ held.
    void flushDue(Clock::time_point now, std::exception_ptr& failure);
    void sendHeld(const std::vector<std::string>& names);
    void deliver(const Tamnet::EmailAddr& from, const EmailChannel::ToList& to,
                 const char* message);

    const DigestSettings settings_;
    EmailChannel::SendEmailFn* inner_;
    Hold hold_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::map<std::string, Window> windows_;  // by sender and recipient list
    std::exception_ptr failure_;             // of a digest sent by the timer
    bool stopping_ = false;
    std::thread timer_;
};

// One agent per parameter set, alive until the process ends (or the
// library is unloaded), when its held mail goes out. A parameter set with
// the hold of an earlier one replaces it.
std::shared_ptr<DigestAgent> digestAgentFor(const Params& params);

}  // namespace EmailAgents
}  // namespace Osk
