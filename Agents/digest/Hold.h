#pragma once

// Mail the digest agent holds back until its window ends: an envelope store
// (see EnvelopeStore.h) whose envelope lines begin "X-Digest-":
//
//   X-Digest-From: alerts@example.org
//   X-Digest-To: ops@example.org
//   X-Digest-Held: 1700000000          (seconds; ends the envelope)
//   To: ...                            (the mail, byte for byte)

#include <ctime>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "Agents/common/EnvelopeStore.h"

namespace Osk {
namespace EmailAgents {

struct HeldMail {
    std::string from;             // plain address
    std::vector<std::string> to;  // plain addresses, in order
    std::time_t held = 0;
    std::string message;
};

class Hold {
public:
    // Creates the directory when missing and takes it for this process: a
    // second holder would send the same mail again. Throws
    // AgentParamException for "hold" when another one has it, or when
    // others may write to it.
    explicit Hold(const std::string& dir);
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    const std::string& dir() const { return box_.path(); }

    // Stores a mail durably; returns its name.
    std::string put(const HeldMail& mail);
    // Names of the held mails, oldest first.
    std::vector<std::string> names() const { return box_.names(); }
    // False when the file is not held mail (no valid envelope, not a
    // regular file, too large); nothing of it is read then.
    bool load(const std::string& name, HeldMail& out) const;
    // Forgets mails that went out, durably.
    void remove(const std::vector<std::string>& names) { box_.remove(names); }
    // Moves a file that load() refused into cur/, for people, and says so on
    // standard error.
    void setAside(const std::string& name);

private:
    EnvelopeStore box_;
    mutable std::mutex mutex_;
    mutable std::map<std::string, std::string> refused_;  // why load() refused a name
};

}  // namespace EmailAgents
}  // namespace Osk
