#pragma once

// Messages the server has not taken yet: an envelope store (see
// EnvelopeStore.h) whose envelope lines begin "X-Spool-". Waiting messages
// are files in new/; messages the server refused for good, with its reply
// as an "X-Spool-Failure:" line, and files that are not spooled mail at all,
// go to the Maildir failed/, so a mail client can open either.

#include <ctime>
#include <string>
#include <vector>

#include "Agents/common/EnvelopeStore.h"

namespace Osk {
namespace EmailAgents {

struct SpooledMessage {
    std::string from;
    std::vector<std::string> to;
    std::string message;  // as the channel built it (line feeds)
    std::time_t queued = 0;
};

enum class SpoolState { Waiting, Failed };

class Spool {
public:
    // Refuses a folder others may write to (AgentParamException, its text
    // beginning with `owner`); creates the spool's folders when missing.
    explicit Spool(const std::string& dir, const std::string& owner = "");
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    const std::string& dir() const { return pending_.path(); }
    // The folder that holds the files of mail in `state`; a file's name
    // there is the mail's id.
    std::string folder(SpoolState state) const;

    // Stores a message durably; returns its name.
    std::string put(const SpooledMessage& message);
    // Stores a refused message with the server's reply in failed/.
    std::string putFailed(const SpooledMessage& message, const std::string& failure);

    // Names of the waiting messages, oldest first.
    std::vector<std::string> pending() const { return pending_.names(); }
    bool empty() const { return pending().empty(); }
    // Reads a waiting message. Returns false when it is gone (taken by
    // another process); throws DeliveryException naming the file and what
    // is wrong with it when it is not spooled mail.
    bool load(const std::string& name, SpooledMessage& out) const;
    void remove(const std::string& name) { pending_.remove({name}); }
    // Moves a file that is not spooled mail from new/ to failed/ as it is.
    void quarantine(const std::string& name) { pending_.moveTo(name, failed_.mailDir()); }

    // Whether `dir` holds a spool (its new/, tmp/ and failed/ folders), so
    // that tools can refuse a mistyped path instead of creating a spool there.
    static bool isSpool(const std::string& dir);
    // Names of the messages in failed/, oldest first.
    std::vector<std::string> failed() const { return failed_.names(); }
    // Reads a message of failed/ and the server's reply to it; as load().
    bool loadFailed(const std::string& name, SpooledMessage& out, std::string& failure) const;
    // Moves a message of failed/ back to the waiting ones, without its
    // failure line; returns its new name.
    std::string requeue(const std::string& name);
    // Removes a message of failed/.
    void removeFailed(const std::string& name) { failed_.remove({name}); }
    // Whether tmp/ holds anything: a write under way, or one a crash cut off.
    bool unfinished() const;
    // Removes the files a crashed writer left in tmp/ (call under the lock).
    std::size_t removeLeftovers();

    // Only one process (and one agent) retries a spool at a time, or a
    // message could be sent twice. Non-blocking; true when this one holds it.
    bool tryLock() { return pending_.tryLock(); }
    void unlock() { pending_.unlock(); }

private:
    EnvelopeStore pending_;
    EnvelopeFolder failed_;
};

}  // namespace EmailAgents
}  // namespace Osk
