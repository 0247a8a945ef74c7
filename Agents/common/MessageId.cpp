#include "Agents/common/MessageId.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <random>

namespace Osk {
namespace EmailAgents {

namespace {

// The right-hand side must be a dot-atom: a host name that is none (or
// none is set) gives way to "localhost".
std::string _domain() {
    char host[256] = {0};
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0' || host[0] == '.') {
        return "localhost";
    }
    for (const char* p = host; *p; ++p) {
        const char c = *p;
        const bool atext = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (!atext && !(c == '.' && p[1] != '.' && p[1] != '\0')) {
            return "localhost";
        }
    }
    return host;
}

}  // namespace

std::string newMessageId() {
    static const std::string domain = _domain();
    static std::atomic<unsigned long> counter{0};
    // Two processes with the same pid at the same microsecond (containers)
    // still differ in the random part.
    thread_local std::mt19937_64 random{std::random_device{}()};
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    char buf[128];
    std::snprintf(buf, sizeof buf, "<%lld.%06ld.%ld.%lu.%016llx@",
                  static_cast<long long>(tv.tv_sec), static_cast<long>(tv.tv_usec),
                  static_cast<long>(getpid()), ++counter,
                  static_cast<unsigned long long>(random()));
    return buf + domain + ">";
}

}  // namespace EmailAgents
}  // namespace Osk
