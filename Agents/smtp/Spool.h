#pragma once

// Messages the SMTP server has not taken yet. The spool directory is itself a
// Maildir: waiting messages are files in new/, and messages the server
// refused for good go to the Maildir failed/, so a mail client can open
// either. Each file is the message with its envelope in front, as header
// lines:
//
//   X-Spool-From: sender@example.org
//   X-Spool-To: first@example.org
//   X-Spool-To: second@example.org
//   X-Spool-Failure: 550 5.1.1 no such user      (only in failed/)
//   X-Spool-Queued: 1700000000                    (seconds; ends the envelope)
//   To: ...                                       (the message as given)

#include <ctime>
#include <string>
#include <vector>

#include "Agents/common/Maildir.h"

namespace Osk {
namespace EmailAgents {

struct SpooledMessage {
    std::string from;
    std::vector<std::string> to;
    std::string message;  // as the channel built it (line feeds)
    std::time_t queued = 0;
};

class Spool {
public:
    // Creates the spool's folders when missing.
    explicit Spool(const std::string& dir);
    ~Spool();
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    const std::string& dir() const { return pending_.path(); }

    // Stores a message durably; returns its name.
    std::string put(const SpooledMessage& message);
    // Stores a refused message with the server's reply in failed/.
    std::string putFailed(const SpooledMessage& message, const std::string& failure);

    // Names of the waiting messages, oldest first.
    std::vector<std::string> pending() const;
    bool empty() const { return pending().empty(); }
    // Reads a waiting message. Returns false when it is gone (taken by
    // another process); throws DeliveryException when it cannot be parsed.
    bool load(const std::string& name, SpooledMessage& out) const;
    void remove(const std::string& name);
    // Moves an unreadable file from new/ to failed/ as it is.
    void quarantine(const std::string& name);

    // Removes the files a crashed writer left in tmp/ (call under the lock).
    std::size_t removeLeftovers();

    // Only one process (and one agent) retries a spool at a time, or a
    // message could be sent twice. Non-blocking; true when this one holds it.
    bool tryLock();
    void unlock();

    // The file's text for a message (exposed for tests).
    static std::string format(const SpooledMessage& message, const std::string& failure);
    static bool parse(const std::string& text, SpooledMessage& out);

private:
    Maildir pending_;
    Maildir failed_;
    int lockFd_;
};

}  // namespace EmailAgents
}  // namespace Osk
