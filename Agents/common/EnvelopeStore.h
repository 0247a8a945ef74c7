#pragma once

// Mail kept on disk with its envelope, for an agent that delivers it later:
// the SMTP agent's spool, the digest agent's hold. A store is a Maildir
// (written to tmp/, flushed, renamed into new/, the folder flushed), so a
// crash leaves a whole file or none, and a mail client can open it. Each
// file is the mail behind its envelope, one header line per field, in the
// store's own spelling:
//
//   X-Spool-From: sender@example.org
//   X-Spool-To: first@example.org
//   X-Spool-To: second@example.org
//   X-Spool-Failure: 550 5.1.1 no such user      (a note, where the store has one)
//   X-Spool-Queued: 1700000000                    (seconds; ends the envelope)
//   To: ...                                       (the mail, byte for byte)
//
// Only a regular file of at most maxMailBytes is read as mail. Only one
// process at a time owns a store (its lock file), and a store folder that
// another user could write to is refused: whatever they put there would be
// sent as if the channel had written it.

#include <ctime>
#include <string>
#include <vector>

#include "Agents/common/Maildir.h"

namespace Osk {
namespace EmailAgents {

// How a store spells its envelope lines ("X-Spool-From: " ...).
struct EnvelopeFormat {
    const char* from;
    const char* to;
    const char* note;  // nullptr: the store keeps no note
    const char* time;  // the last line of the envelope
};

struct Envelope {
    std::string from;             // plain address; may be empty (the null sender)
    std::vector<std::string> to;  // plain addresses, in order; never empty
    std::time_t time = 0;
    std::string note;
    std::string message;  // as the channel built it
};

// The file's text; line breaks inside a field become blanks.
std::string formatEnvelope(const EnvelopeFormat& format, const Envelope& mail);
// False for anything but a sender, at least one recipient, an optional note
// and the time, each once where it must be and in that order.
bool parseEnvelope(const EnvelopeFormat& format, std::string text, Envelope& out);

// Throws AgentParamException "<owner>: ..." ("" for none) when `folder`, or a folder in
// it (two levels down), may be written by group or others, naming it and its
// mode. A folder that does not exist yet passes: the store makes it private.
// Creates and changes nothing.
void checkStoreFolder(const std::string& folder, const std::string& owner);

// One Maildir of envelope files.
class EnvelopeFolder {
public:
    EnvelopeFolder(const std::string& path, const EnvelopeFormat& format);

    const std::string& path() const { return box_.path(); }
    // Where the mail files are (new/).
    std::string mailDir() const { return box_.newDir(); }
    void create() const { box_.create(); }

    // Stores a mail durably; returns its name.
    std::string put(const Envelope& mail) const;
    // Names of the mail files, oldest first.
    std::vector<std::string> names() const;

    enum class Load { Done, Gone, Invalid };
    // Gone: taken meanwhile. Invalid: not a regular file of at most
    // maxMailBytes with a valid envelope; `why` says which (nothing of a
    // file that is not mail is read). Throws DeliveryException when the
    // file cannot be read.
    Load load(const std::string& name, Envelope& out, std::string& why) const;
    // Forgets mail, durably: a removal lost in a crash would send it again.
    void remove(const std::vector<std::string>& names) const;
    // Moves a file into `folder` as it is (a link as a link), durably.
    void moveTo(const std::string& name, const std::string& folder) const;
    // Removes what crashed writers left in tmp/ (see Maildir).
    std::size_t removeLeftovers(long maxAgeSeconds, bool writerGone) const {
        return box_.removeLeftovers(maxAgeSeconds, writerGone);
    }

private:
    Maildir box_;
    const EnvelopeFormat& format_;
};

// The store's top folder, which holds its lock. The folder and those in it
// are checked (checkStoreFolder) before anything is made.
class EnvelopeStore : public EnvelopeFolder {
public:
    EnvelopeStore(const std::string& dir, const EnvelopeFormat& format, const std::string& owner);
    ~EnvelopeStore();
    EnvelopeStore(const EnvelopeStore&) = delete;
    EnvelopeStore& operator=(const EnvelopeStore&) = delete;

    // Non-blocking; true when this object holds the store's lock. A second
    // owner would send the same mail again.
    bool tryLock();
    void unlock();

private:
    int lockFd_ = -1;
};

}  // namespace EmailAgents
}  // namespace Osk
