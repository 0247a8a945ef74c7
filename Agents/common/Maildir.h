#pragma once

// Delivery into a Maildir: a directory with tmp/, new/ and cur/. A message is
// written under a unique name into tmp/, flushed to disk, and renamed into
// new/, so a reader sees in new/ only complete files. The SMTP agent's spool
// uses the same protocol.

#include <cstddef>
#include <string>
#include <vector>

namespace Osk {
namespace EmailAgents {

// A run of bytes of a file being written; a file may be several pieces.
struct Piece {
    const char* data;
    std::size_t size;
};

class Maildir {
public:
    // `sync`: flush each file and new/ to disk before deliver() returns.
    Maildir(std::string path, bool sync);

    // Creates the directory and its tmp/, new/ and cur/ when missing.
    void create() const;
    // Writes the pieces as one new message; returns its file name in new/.
    // Creates the Maildir first if it does not exist yet.
    std::string deliver(const std::vector<Piece>& pieces) const;

    // Removes what writers that crashed left in tmp/: files older than
    // `maxAgeSeconds`, and with `writerGone` also younger files whose writing
    // process (the P<pid> of the name) no longer runs. Returns how many.
    std::size_t removeLeftovers(long maxAgeSeconds, bool writerGone) const;

    const std::string& path() const { return path_; }
    std::string newDir() const { return path_ + "/new"; }

private:
    std::string path_;
    bool sync_;
};

// "<seconds>.M<microseconds>P<pid>Q<count>.<host>": unique within the host,
// and the names of one directory sort by the time they were made.
std::string uniqueMaildirName();

// The file names in `dir`, oldest first (names begin with the time they were
// made, zero-padded). Throws DeliveryException "<failure> \"dir\": <reason>"
// when the folder cannot be read.
std::vector<std::string> sortedNames(const std::string& dir, const std::string& failure);

// Flushes a directory's entries (after a rename or unlink in it).
void syncDirectory(const std::string& dir);

// The largest file read as a mail. An alert is a few kilobytes; anything
// near this is not one of ours, and reading it would take the memory.
const std::size_t maxMailBytes = 64 * 1024 * 1024;

enum class MailFile { Read, Gone, NotMail };

// Reads the mail file `path` into `out`. Only a regular file is mail: a link
// is not followed, a FIFO or device is not waited on, and nothing beyond
// maxMailBytes is read. Gone: no file of that name (taken meanwhile);
// NotMail: `why` says what the file is instead. Throws DeliveryException
// when a file that is mail cannot be read.
MailFile readMailFile(const std::string& path, std::string& out, std::string& why);

}  // namespace EmailAgents
}  // namespace Osk
