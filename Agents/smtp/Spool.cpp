#include "Agents/smtp/Spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/smtp/Spool";
const char* const _from = "X-Spool-From: ";
const char* const _to = "X-Spool-To: ";
const char* const _failure = "X-Spool-Failure: ";
const char* const _queued = "X-Spool-Queued: ";

// Envelope lines are one line each: a line break inside would end them early.
std::string _oneLine(std::string text) {
    for (char& c : text) {
        if (c == '\r' || c == '\n') {
            c = ' ';
        }
    }
    return text;
}

bool _take(const std::string& line, const char* prefix, std::string& value) {
    const std::size_t n = std::strlen(prefix);
    if (line.compare(0, n, prefix) != 0) {
        return false;
    }
    value = line.substr(n);
    return true;
}

bool _load(const std::string& path, SpooledMessage& out, std::string* failure) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return false;
    }
    std::ostringstream content;
    content << in.rdbuf();
    if (!Spool::parse(content.str(), out, failure)) {
        TAMTK_THROW(DeliveryException, _source,
                    "the spool file \"" << path << "\" has no valid envelope");
    }
    return true;
}

void _unlink(const std::string& dir, const std::string& name) {
    const std::string path = dir + "/" + name;
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        const int err = errno;
        TAMTK_THROW(DeliveryException, _source,
                    "cannot remove \"" << path << "\" from the spool: " << std::strerror(err));
    }
    // A removal that is lost in a crash would deliver the message again.
    syncDirectory(dir);
}

}  // namespace

Spool::Spool(const std::string& dir)
    : pending_(dir, true), failed_(dir + "/failed", true), lockFd_(-1) {
    pending_.create();
    failed_.create();
}

Spool::~Spool() {
    unlock();
}

std::string Spool::format(const SpooledMessage& message, const std::string& failure) {
    std::ostringstream out;
    out << _from << _oneLine(message.from) << '\n';
    for (const std::string& r : message.to) {
        out << _to << _oneLine(r) << '\n';
    }
    if (!failure.empty()) {
        out << _failure << _oneLine(failure) << '\n';
    }
    out << _queued << static_cast<long long>(message.queued) << '\n';
    out << message.message;
    return out.str();
}

bool Spool::parse(const std::string& text, SpooledMessage& out, std::string* failure) {
    out = SpooledMessage();
    if (failure) {
        failure->clear();
    }
    bool haveFrom = false;
    std::size_t pos = 0;
    while (pos < text.size()) {
        const std::size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) {
            return false;
        }
        const std::string line = text.substr(pos, eol - pos);
        pos = eol + 1;
        std::string value;
        if (_take(line, _from, value)) {
            out.from = value;
            haveFrom = true;
        } else if (_take(line, _to, value)) {
            out.to.push_back(value);
        } else if (_take(line, _failure, value)) {
            if (failure) {
                *failure = value;  // a retry does not need it
            }
        } else if (_take(line, _queued, value)) {
            char* end = nullptr;
            out.queued = static_cast<std::time_t>(std::strtoll(value.c_str(), &end, 10));
            if (!haveFrom || out.to.empty() || value.empty() || *end != '\0') {
                return false;
            }
            out.message = text.substr(pos);
            return true;
        } else {
            return false;
        }
    }
    return false;
}

std::string Spool::put(const SpooledMessage& message) {
    const std::string text = format(message, "");
    return pending_.deliver({Piece{text.data(), text.size()}});
}

std::string Spool::putFailed(const SpooledMessage& message, const std::string& failure) {
    const std::string text = format(message, failure);
    return failed_.deliver({Piece{text.data(), text.size()}});
}

std::vector<std::string> Spool::pending() const {
    return sortedNames(pending_.newDir(), "cannot list the spool");
}

std::vector<std::string> Spool::failed() const {
    return sortedNames(failed_.newDir(), "cannot list the spool");
}

bool Spool::load(const std::string& name, SpooledMessage& out) const {
    return _load(pending_.newDir() + "/" + name, out, nullptr);
}

bool Spool::loadFailed(const std::string& name, SpooledMessage& out, std::string& failure) const {
    return _load(failed_.newDir() + "/" + name, out, &failure);
}

bool Spool::isSpool(const std::string& dir) {
    struct stat st;
    for (const char* sub : {"/new", "/tmp", "/failed/new"}) {
        if (stat((dir + sub).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            return false;
        }
    }
    return true;
}

std::string Spool::requeue(const std::string& name) {
    SpooledMessage message;
    std::string failure;
    if (!loadFailed(name, message, failure)) {
        TAMTK_THROW(DeliveryException, _source,
                    "\"" << name << "\" is not in \"" << failed_.newDir() << "\"");
    }
    // The waiting copy first: a crash in between leaves the message in both
    // places, never in neither.
    const std::string renamed = put(message);
    removeFailed(name);
    return renamed;
}

void Spool::removeFailed(const std::string& name) {
    _unlink(failed_.newDir(), name);
}

void Spool::remove(const std::string& name) {
    _unlink(pending_.newDir(), name);
}

void Spool::quarantine(const std::string& name) {
    const std::string from = pending_.newDir() + "/" + name;
    const std::string to = failed_.newDir() + "/" + name;
    if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
        const int err = errno;
        TAMTK_THROW(DeliveryException, _source,
                    "cannot move \"" << from << "\" to failed/: " << std::strerror(err));
    }
    syncDirectory(pending_.newDir());
}

bool Spool::unfinished() const {
    for (const Maildir* m : {&pending_, &failed_}) {
        if (DIR* d = opendir((m->path() + "/tmp").c_str())) {
            bool any = false;
            while (dirent* e = readdir(d)) {
                any = any || e->d_name[0] != '.';
            }
            closedir(d);
            if (any) {
                return true;
            }
        }
    }
    return false;
}

std::size_t Spool::removeLeftovers() {
    // Every write to the spool is over in moments, so a file whose writer no
    // longer runs is an unfinished one; a day and a half covers a writer
    // whose name tells no process.
    const long age = 36 * 3600;
    return pending_.removeLeftovers(age, true) + failed_.removeLeftovers(age, true);
}

bool Spool::tryLock() {
    if (lockFd_ >= 0) {
        return true;
    }
    const std::string path = pending_.path() + "/lock";
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
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

void Spool::unlock() {
    if (lockFd_ >= 0) {
        close(lockFd_);  // releases the lock
        lockFd_ = -1;
    }
}

}  // namespace EmailAgents
}  // namespace Osk
