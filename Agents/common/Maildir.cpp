#include "Agents/common/Maildir.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/Maildir";

// A host name may not contain the separators of a Maildir name; the usual
// escapes keep it readable.
std::string _hostPart() {
    char host[256] = {0};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') {
        std::strcpy(host, "localhost");
    }
    std::string out;
    for (const char* p = host; *p; ++p) {
        if (*p == '/') {
            out += "\\057";
        } else if (*p == ':') {
            out += "\\072";
        } else {
            out += *p;
        }
    }
    return out;
}

// Time-ordered sorting of names by `ls` or std::sort needs fixed-width numbers.
std::string _format(long long seconds, long micros, long pid, unsigned long count,
                    const std::string& host) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "%010lld.M%06ldP%ldQ%lu.", seconds, micros, pid, count);
    return buf + host;
}

bool _isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// mkdir -p with mode 0700: mail is private.
void _makeDirs(const std::string& path, const std::string& maildir) {
    std::string::size_type pos = 0;
    while (pos != std::string::npos) {
        pos = path.find('/', pos + 1);
        const std::string part = path.substr(0, pos);
        if (part.empty() || part == "." || part == "..") {
            continue;
        }
        if (mkdir(part.c_str(), 0700) != 0) {
            const int err = errno;
            if (err == EEXIST && _isDirectory(part)) {
                continue;
            }
            TAMTK_THROW(DeliveryException, _source,
                        "Maildir \"" << maildir << "\": cannot create directory \"" << part
                                     << "\": "
                                     << (err == EEXIST ? "a file of that name is in the way"
                                                       : std::strerror(err)));
        }
    }
}

void _writeAll(int fd, const std::vector<Piece>& pieces, const std::string& file) {
    for (const Piece& piece : pieces) {
        const char* p = piece.data;
        std::size_t left = piece.size;
        while (left > 0) {
            const ssize_t n = write(fd, p, left);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                const int err = n < 0 ? errno : EIO;
                TAMTK_THROW(DeliveryException, _source,
                            "cannot write \"" << file << "\": " << std::strerror(err));
            }
            p += n;
            left -= static_cast<std::size_t>(n);
        }
    }
}

// The writer named by "<time>.M<us>P<pid>Q<n>.<host>"; 0 for names made elsewhere.
long _writerOf(const std::string& name) {
    const std::size_t p = name.find('P');
    const std::size_t q = name.find('Q', p);
    if (p == std::string::npos || q == std::string::npos || q == p + 1) {
        return 0;
    }
    long pid = 0;
    for (std::size_t i = p + 1; i < q; ++i) {
        if (name[i] < '0' || name[i] > '9' || pid > 1000000000L) {
            return 0;
        }
        pid = pid * 10 + (name[i] - '0');
    }
    return pid;
}

bool _running(long pid) {
    return pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

}  // namespace

std::size_t Maildir::removeLeftovers(long maxAgeSeconds, bool writerGone) const {
    const std::string dir = path_ + "/tmp";
    DIR* d = opendir(dir.c_str());
    if (!d) {
        return 0;  // nothing there yet
    }
    std::vector<std::string> names;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            names.emplace_back(e->d_name);
        }
    }
    closedir(d);
    const std::time_t now = std::time(nullptr);
    std::size_t removed = 0;
    for (const std::string& name : names) {
        const std::string file = dir + "/" + name;
        struct stat st;
        if (lstat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            continue;
        }
        const bool old = now - st.st_mtime > maxAgeSeconds;
        // A living writer, even with an unknown name, may still rename it.
        const bool abandoned = writerGone && !_running(_writerOf(name)) && _writerOf(name) != 0;
        if ((old || abandoned) && unlink(file.c_str()) == 0) {
            ++removed;
        }
    }
    return removed;
}

std::string uniqueMaildirName() {
    static const std::string host = _hostPart();
    static std::atomic<unsigned long> counter{0};
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return _format(tv.tv_sec, tv.tv_usec, static_cast<long>(getpid()), ++counter, host);
}

void syncDirectory(const std::string& dir) {
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        TAMTK_THROW(DeliveryException, _source,
                    "cannot open \"" << dir << "\" to flush it: " << std::strerror(err));
    }
    const int rc = fsync(fd);
    const int err = errno;
    close(fd);
    if (rc != 0 && err != EINVAL) {  // EINVAL: the file system cannot flush directories
        TAMTK_THROW(DeliveryException, _source,
                    "cannot flush \"" << dir << "\": " << std::strerror(err));
    }
}

Maildir::Maildir(std::string path, bool sync) : path_(std::move(path)), sync_(sync) {
    while (path_.size() > 1 && path_.back() == '/') {
        path_.pop_back();
    }
}

void Maildir::create() const {
    for (const char* sub : {"", "/tmp", "/new", "/cur"}) {
        const std::string dir = path_ + sub;
        if (!_isDirectory(dir)) {
            _makeDirs(dir, path_);
        }
    }
}

std::string Maildir::deliver(const std::vector<Piece>& pieces) const {
    bool created = false;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name = uniqueMaildirName();
        const std::string tmp = path_ + "/tmp/" + name;
        const int fd =
            open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0) {
            const int err = errno;
            if (err == EEXIST) {
                continue;
            }
            if ((err == ENOENT || err == ENOTDIR) && !created) {
                create();
                created = true;
                continue;
            }
            TAMTK_THROW(DeliveryException, _source,
                        "Maildir \"" << path_ << "\": cannot create \"" << tmp
                                     << "\": " << std::strerror(err));
        }
        try {
            _writeAll(fd, pieces, tmp);
            if (sync_ && fsync(fd) != 0) {
                const int err = errno;
                TAMTK_THROW(DeliveryException, _source,
                            "cannot flush \"" << tmp << "\": " << std::strerror(err));
            }
        } catch (...) {
            close(fd);
            unlink(tmp.c_str());
            throw;
        }
        // Write errors of network file systems may only show at close.
        if (close(fd) != 0) {
            const int err = errno;
            unlink(tmp.c_str());
            TAMTK_THROW(DeliveryException, _source,
                        "cannot write \"" << tmp << "\": " << std::strerror(err));
        }
        const std::string final = path_ + "/new/" + name;
        int rc = rename(tmp.c_str(), final.c_str());
        if (rc != 0 && errno == ENOENT && !created) {  // new/ was removed under us
            create();
            rc = rename(tmp.c_str(), final.c_str());
        }
        if (rc != 0) {
            const int err = errno;
            unlink(tmp.c_str());
            TAMTK_THROW(DeliveryException, _source,
                        "Maildir \"" << path_ << "\": cannot move \"" << tmp
                                     << "\" into new/: " << std::strerror(err));
        }
        if (sync_) {
            syncDirectory(path_ + "/new");
        }
        return name;
    }
    TAMTK_THROW(DeliveryException, _source,
                "Maildir \"" << path_ << "\": no unused file name found in tmp/");
}

std::vector<std::string> sortedNames(const std::string& dir, const std::string& failure) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) {
        const int err = errno;
        TAMTK_THROW(DeliveryException, _source,
                    failure << " \"" << dir << "\": " << std::strerror(err));
    }
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') {
            names.emplace_back(e->d_name);
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

MailFile readMailFile(const std::string& path, std::string& out, std::string& why) {
    out.clear();
    // Non-blocking, so that opening a FIFO returns at once instead of
    // waiting for a writer; a regular file reads the same either way.
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        if (err == ENOENT) {
            return MailFile::Gone;
        }
        if (err == ELOOP || err == ENXIO) {
            why = err == ELOOP ? "a symbolic link" : "not a regular file";
            return MailFile::NotMail;
        }
        TAMTK_THROW(DeliveryException, _source,
                    "cannot read \"" << path << "\": " << std::strerror(err));
    }
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        why = "not a regular file";
        return MailFile::NotMail;
    }
    const std::string tooLarge = "larger than " + std::to_string(maxMailBytes) + " bytes";
    if (static_cast<unsigned long long>(st.st_size) > maxMailBytes) {
        why = tooLarge;
        return MailFile::NotMail;
    }
    out.reserve(static_cast<std::size_t>(st.st_size));
    char buffer[65536];
    // The size may change while it is read: the bound holds whatever comes.
    while (out.size() <= maxMailBytes) {
        const ssize_t n = read(fd, buffer, std::min(sizeof buffer, maxMailBytes + 1 - out.size()));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int err = errno;
            TAMTK_THROW(DeliveryException, _source,
                        "cannot read \"" << path << "\": " << std::strerror(err));
        }
        if (n == 0) {
            return MailFile::Read;
        }
        out.append(buffer, static_cast<std::size_t>(n));
    }
    out.clear();
    why = tooLarge;
    return MailFile::NotMail;
}

}  // namespace EmailAgents
}  // namespace Osk
