#include "Agents/common/EnvelopeStore.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/EnvelopeStore";

// Envelope lines are one line each: a line break inside would end them early.
std::string _oneLine(std::string text) {
    for (char& c : text) {
        if (c == '\r' || c == '\n') {
            c = ' ';
        }
    }
    return text;
}

void _checkMode(const std::string& folder, const std::string& owner) {
    struct stat st;
    if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
        (st.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
        return;
    }
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    TAMTK_THROW(AgentParamException, _source,
                owner << (owner.empty() ? "" : ": ") << "the folder \"" << folder
                      << "\" may be written by group or others (mode " << mode
                      << "), so another user could put mail there to be sent as the channel's; "
                         "it is refused until only its owner may write to it (chmod go-w)");
}

std::vector<std::string> _subfolders(const std::string& folder) {
    std::vector<std::string> out;
    DIR* d = opendir(folder.c_str());
    if (!d) {
        return out;
    }
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        const bool maybeFolder =
            e->d_type == DT_DIR || e->d_type == DT_LNK || e->d_type == DT_UNKNOWN;
        if (name != "." && name != ".." && maybeFolder) {
            out.push_back(folder + "/" + name);
        }
    }
    closedir(d);
    return out;
}

// tmp/, new/ and cur/ hold mail files: what lies in them is judged as
// mail when it is read, not as a folder of the store.
bool _holdsMail(const std::string& folder) {
    const std::string name = folder.substr(folder.rfind('/') + 1);
    return name == "tmp" || name == "new" || name == "cur";
}

void _checkTree(const std::string& folder, const std::string& owner, int depth) {
    _checkMode(folder, owner);
    if (depth > 0 && !_holdsMail(folder)) {
        for (const std::string& sub : _subfolders(folder)) {
            _checkTree(sub, owner, depth - 1);
        }
    }
}

}  // namespace

std::string formatEnvelope(const EnvelopeFormat& format, const Envelope& mail) {
    std::string out;
    out.reserve(mail.message.size() + 256);
    out += format.from + _oneLine(mail.from) + '\n';
    for (const std::string& r : mail.to) {
        out += format.to + _oneLine(r) + '\n';
    }
    if (format.note && !mail.note.empty()) {
        out += format.note + _oneLine(mail.note) + '\n';
    }
    out += format.time + std::to_string(static_cast<long long>(mail.time)) + '\n';
    out += mail.message;
    return out;
}

bool parseEnvelope(const EnvelopeFormat& format, std::string text, Envelope& out) {
    out = Envelope();
    std::size_t pos = 0;
    std::string value;
    // The next line, when it begins with `prefix`: its rest goes to `value`.
    const auto take = [&](const char* prefix) {
        const std::size_t n = std::strlen(prefix);
        const std::size_t eol = text.find('\n', pos);
        if (eol == std::string::npos || eol - pos < n || text.compare(pos, n, prefix) != 0) {
            return false;
        }
        value.assign(text, pos + n, eol - pos - n);
        pos = eol + 1;
        return true;
    };
    if (!take(format.from)) {
        return false;
    }
    out.from = value;
    while (take(format.to)) {
        out.to.push_back(value);
    }
    if (format.note && take(format.note)) {
        out.note = value;
    }
    if (out.to.empty() || !take(format.time)) {
        return false;
    }
    char* end = nullptr;
    out.time = static_cast<std::time_t>(std::strtoll(value.c_str(), &end, 10));
    if (value.empty() || *end != '\0') {
        return false;
    }
    text.erase(0, pos);
    out.message = std::move(text);
    return true;
}

void checkStoreFolder(const std::string& folder, const std::string& owner) {
    // Two levels: the spool keeps a second Maildir (failed/) inside.
    _checkTree(folder, owner, 2);
}

EnvelopeFolder::EnvelopeFolder(const std::string& path, const EnvelopeFormat& format)
    : box_(path, true), format_(format) {}

std::string EnvelopeFolder::put(const Envelope& mail) const {
    const std::string text = formatEnvelope(format_, mail);
    return box_.deliver({Piece{text.data(), text.size()}});
}

std::vector<std::string> EnvelopeFolder::names() const {
    return sortedNames(mailDir(), "cannot list");
}

EnvelopeFolder::Load EnvelopeFolder::load(const std::string& name, Envelope& out,
                                          std::string& why) const {
    std::string text;
    switch (readMailFile(mailDir() + "/" + name, text, why)) {
        case MailFile::Gone:
            return Load::Gone;
        case MailFile::NotMail:
            return Load::Invalid;
        case MailFile::Read:
            break;
    }
    if (!parseEnvelope(format_, std::move(text), out)) {
        why = "no valid envelope";
        return Load::Invalid;
    }
    return Load::Done;
}

void EnvelopeFolder::remove(const std::vector<std::string>& names) const {
    for (const std::string& name : names) {
        const std::string path = mailDir() + "/" + name;
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            const int err = errno;
            TAMTK_THROW(DeliveryException, _source,
                        "cannot remove \"" << path << "\": " << std::strerror(err));
        }
    }
    syncDirectory(mailDir());
}

void EnvelopeFolder::moveTo(const std::string& name, const std::string& folder) const {
    const std::string from = mailDir() + "/" + name;
    const std::string to = folder + "/" + name;
    if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
        const int err = errno;
        TAMTK_THROW(
            DeliveryException, _source,
            "cannot move \"" << from << "\" to \"" << folder << "\": " << std::strerror(err));
    }
    syncDirectory(mailDir());
}

EnvelopeStore::EnvelopeStore(const std::string& dir, const EnvelopeFormat& format,
                             const std::string& owner)
    : EnvelopeFolder(dir, format) {
    checkStoreFolder(path(), owner);
    create();
}

EnvelopeStore::~EnvelopeStore() {
    unlock();
}

bool EnvelopeStore::tryLock() {
    if (lockFd_ >= 0) {
        return true;
    }
    const std::string file = path() + "/lock";
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) {
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        return false;
    }
    lockFd_ = fd;
    return true;
}

void EnvelopeStore::unlock() {
    if (lockFd_ >= 0) {
        close(lockFd_);  // releases the lock
        lockFd_ = -1;
    }
}

}  // namespace EmailAgents
}  // namespace Osk
