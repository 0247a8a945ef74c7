#include "Agents/common/MailHeaders.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace Osk {
namespace EmailAgents {

namespace {

// The right side of a Message-ID is a dot-atom: a host name that would need
// quoting is replaced rather than quoted.
std::string _idHost() {
    char host[256] = {0};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') {
        return "localhost";
    }
    for (const char* p = host; *p; ++p) {
        const char c = *p;
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '-' || c == '.';
        if (!ok || (c == '.' && (p == host || p[1] == '\0' || p[1] == '.'))) {
            return "localhost";
        }
    }
    return host;
}

bool _isName(const char* line, std::size_t length, const char* name) {
    const std::size_t n = std::strlen(name);
    if (length <= n || strncasecmp(line, name, n) != 0) {
        return false;
    }
    std::size_t i = n;
    while (i < length && (line[i] == ' ' || line[i] == '\t')) {
        ++i;
    }
    return i < length && line[i] == ':';
}

}  // namespace

std::string newMessageId() {
    static const std::string host = _idHost();
    static std::atomic<unsigned long> counter{0};
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    char buf[96];
    std::snprintf(buf, sizeof buf, "<%lld.%06ld.%ld.%lu@", static_cast<long long>(tv.tv_sec),
                  static_cast<long>(tv.tv_usec), static_cast<long>(getpid()), ++counter);
    return buf + host + ">";
}

std::string missingHeaders(const char* message) {
    bool haveId = false;
    bool haveAuto = false;
    const char* eol = "\n";
    bool first = true;
    for (const char* line = message; *line;) {
        const char* end = std::strchr(line, '\n');
        const std::size_t length = end ? static_cast<std::size_t>(end - line) : std::strlen(line);
        std::size_t text = length;
        if (text > 0 && line[text - 1] == '\r') {
            --text;
        }
        if (first) {
            eol = text < length ? "\r\n" : "\n";
            first = false;
        }
        if (text == 0) {
            break;  // the header ends at the first empty line
        }
        haveId = haveId || _isName(line, text, "Message-ID");
        haveAuto = haveAuto || _isName(line, text, "Auto-Submitted");
        if (!end) {
            break;
        }
        line = end + 1;
    }
    std::string out;
    if (!haveId) {
        out += "Message-ID: " + newMessageId() + eol;
    }
    if (!haveAuto) {
        out += std::string("Auto-Submitted: auto-generated") + eol;
    }
    return out;
}

}  // namespace EmailAgents
}  // namespace Osk
