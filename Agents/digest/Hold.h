#pragma once

// Mail the digest agent holds back until its window ends. The hold directory
// is a Maildir: each held mail is one file in new/, written to tmp/, flushed
// and renamed, so a crash leaves either the whole mail or nothing. A file is
// the mail as the channel built it, behind its envelope:
//
//   X-Digest-From: alerts@example.org
//   X-Digest-To: ops@example.org
//   X-Digest-Held: 1700000000          (seconds; ends the envelope)
//   To: ...                            (the mail, byte for byte)

#include <ctime>
#include <string>
#include <vector>

#include "Agents/common/Maildir.h"

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
    // AgentParamException for "hold" when another one has it.
    explicit Hold(const std::string& dir);
    ~Hold();
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

    const std::string& dir() const { return box_.path(); }

    // Stores a mail durably; returns its name.
    std::string put(const HeldMail& mail);
    // Names of the held mails, oldest first.
    std::vector<std::string> names() const;
    // False when the file has no valid envelope.
    bool load(const std::string& name, HeldMail& out) const;
    // Forgets mails that went out, durably.
    void remove(const std::vector<std::string>& names);
    // Moves a file that cannot be read as held mail into cur/, for people.
    void setAside(const std::string& name);

    static std::string format(const HeldMail& mail);
    static bool parse(const std::string& text, HeldMail& out);

private:
    Maildir box_;
    int lockFd_;
};

}  // namespace EmailAgents
}  // namespace Osk
