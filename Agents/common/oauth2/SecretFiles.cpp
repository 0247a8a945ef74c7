#include "Agents/common/oauth2/SecretFiles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

#include "Agents/common/oauth2/OAuth2Exceptions.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/oauth2/SecretFiles";

std::string _folder(const std::string& file) {
    const std::size_t slash = file.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
}

bool _writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return true;
}

}  // namespace

std::string readSecretFile(const std::string& file, const char* what) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        const int err = errno;
        TAMTK_THROW(
            OAuth2ConfigException, _source,
            "cannot read the " << what << " file \"" << file << "\": " << std::strerror(err));
    }
    std::string line;
    std::getline(in, line);
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    if (line.empty()) {
        TAMTK_THROW(OAuth2ConfigException, _source,
                    "the " << what << " file \"" << file << "\" is empty");
    }
    return line;
}

void replaceSecretFile(const std::string& file, const std::string& secret, const char* what) {
    const std::string folder = _folder(file);
    std::string name = file + ".new-XXXXXX";
    std::vector<char> path(name.begin(), name.end());
    path.push_back('\0');
    const int fd = mkostemp(path.data(), O_CLOEXEC);  // mode 0600
    int err = fd < 0 ? errno : 0;
    if (fd >= 0) {
        const bool written = _writeAll(fd, secret + "\n") && fsync(fd) == 0;
        err = written ? 0 : errno;
        if (close(fd) != 0 && written) {
            err = errno;
        }
        if (err == 0 && rename(path.data(), file.c_str()) != 0) {
            err = errno;
        }
        if (err != 0) {
            unlink(path.data());
        }
    }
    if (err == 0) {
        // The rename itself is durable only once the folder is synced.
        const int dir = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        err = dir < 0 || fsync(dir) != 0 ? errno : 0;
        if (dir >= 0) {
            close(dir);
        }
    }
    if (err != 0) {
        TAMTK_THROW(
            OAuth2TemporaryException, _source,
            "cannot save the new " << what << " to \"" << file << "\": " << std::strerror(err));
    }
}

SecretFileLock::SecretFileLock(const std::string& file)
    : fd_(open(_folder(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    while (fd_ >= 0 && flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

SecretFileLock::~SecretFileLock() {
    if (fd_ >= 0) {
        close(fd_);  // releases the lock
    }
}

}  // namespace EmailAgents
}  // namespace Osk
