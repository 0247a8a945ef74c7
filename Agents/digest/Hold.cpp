#include "Agents/digest/Hold.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/digest/Hold";
const char* const _from = "X-Digest-From: ";
const char* const _to = "X-Digest-To: ";
const char* const _held = "X-Digest-Held: ";

// Envelope lines are one line each: a line break inside would end them early.
std::string _oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::replace(text.begin(), text.end(), '\r', ' ');
    return text;
}

bool _take(const std::string& text, std::size_t pos, std::size_t eol, const char* prefix,
           std::string& value) {
    const std::size_t n = std::strlen(prefix);
    if (eol - pos < n || text.compare(pos, n, prefix) != 0) {
        return false;
    }
    value.assign(text, pos + n, eol - pos - n);
    return true;
}

}  // namespace

Hold::Hold(const std::string& dir) : box_(dir, true), lockFd_(-1) {
    box_.create();
    const std::string path = box_.path() + "/lock";
    lockFd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lockFd_ < 0) {
        const int err = errno;
        TAMTK_THROW(AgentParamException, _source,
                    "Digest agent: parameter \"hold\": cannot open \""
                        << path << "\": " << std::strerror(err));
    }
    if (flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
        close(lockFd_);
        lockFd_ = -1;
        TAMTK_THROW(AgentParamException, _source,
                    "Digest agent: parameter \"hold\": \""
                        << box_.path() << "\" is in use by another digest agent");
    }
    // Only the holder of the lock writes here, so whatever lies in tmp/ was
    // left by one that crashed in the middle of a write.
    box_.removeLeftovers(-1, false);
}

Hold::~Hold() {
    if (lockFd_ >= 0) {
        close(lockFd_);  // releases the lock
    }
}

std::string Hold::format(const HeldMail& mail) {
    std::string out;
    out.reserve(mail.message.size() + 256);
    out += _from + _oneLine(mail.from) + '\n';
    for (const std::string& r : mail.to) {
        out += _to + _oneLine(r) + '\n';
    }
    out += _held + std::to_string(static_cast<long long>(mail.held)) + '\n';
    out += mail.message;
    return out;
}

bool Hold::parse(const std::string& text, HeldMail& out) {
    out = HeldMail();
    bool haveFrom = false;
    for (std::size_t pos = 0; pos < text.size();) {
        const std::size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) {
            return false;
        }
        std::string value;
        if (_take(text, pos, eol, _from, value)) {
            out.from = value;
            haveFrom = true;
        } else if (_take(text, pos, eol, _to, value)) {
            out.to.push_back(value);
        } else if (_take(text, pos, eol, _held, value)) {
            char* end = nullptr;
            out.held = static_cast<std::time_t>(std::strtoll(value.c_str(), &end, 10));
            if (!haveFrom || out.to.empty() || value.empty() || *end != '\0') {
                return false;
            }
            out.message.assign(text, eol + 1, std::string::npos);
            return true;
        } else {
            return false;
        }
        pos = eol + 1;
    }
    return false;
}

std::string Hold::put(const HeldMail& mail) {
    const std::string text = format(mail);
    return box_.deliver({Piece{text.data(), text.size()}});
}

std::vector<std::string> Hold::names() const {
    return sortedNames(box_.newDir(), "Digest agent: cannot list");
}

bool Hold::load(const std::string& name, HeldMail& out) const {
    const std::string path = box_.newDir() + "/" + name;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int err = errno;
        TAMTK_THROW(DeliveryException, _source,
                    "Digest agent: cannot read \"" << path << "\": " << std::strerror(err));
    }
    std::ostringstream content;
    content << in.rdbuf();
    return parse(content.str(), out);
}

void Hold::remove(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        const std::string path = box_.newDir() + "/" + name;
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            const int err = errno;
            TAMTK_THROW(DeliveryException, _source,
                        "Digest agent: cannot remove \"" << path << "\": " << std::strerror(err));
        }
    }
    // A removal lost in a crash would send the mail a second time.
    syncDirectory(box_.newDir());
}

void Hold::setAside(const std::string& name) {
    const std::string from = box_.newDir() + "/" + name;
    const std::string to = box_.path() + "/cur/" + name;
    if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) {
        const int err = errno;
        TAMTK_THROW(DeliveryException, _source,
                    "Digest agent: cannot move \"" << from << "\" to cur/: " << std::strerror(err));
    }
    syncDirectory(box_.newDir());
}

}  // namespace EmailAgents
}  // namespace Osk
