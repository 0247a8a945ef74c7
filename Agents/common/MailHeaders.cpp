#include "Agents/common/MailHeaders.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "NetToolkit/HeaderBlock.h"

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
    const Tamnet::HeaderBlock block(message);
    const std::string eol = block.lineEnd();
    std::string out;
    if (!block.find("Message-ID")) {
        out += "Message-ID: " + newMessageId() + eol;
    }
    if (!block.find("Auto-Submitted")) {
        out += "Auto-Submitted: auto-generated" + eol;
    }
    return out;
}

}  // namespace EmailAgents
}  // namespace Osk
