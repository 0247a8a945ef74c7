#include "Channels/email/token_scan.h"

#include <cstring>

namespace Osk {
namespace internal {

namespace {

// Text that a Perl-syntax expression matches only as itself.
bool _literal(const std::string& text) {
    static const char syntax[] = ".[]{}()\\*+?|^$";
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte > 0x7E || std::strchr(syntax, c) != nullptr) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool token_scan::assign(const std::vector<std::string>& alternatives) {
    keys_.clear();
    usable_ = false;
    if (alternatives.empty()) {
        return false;
    }
    for (const std::string& key : alternatives) {
        // Every search step starts at a "%", so every key must too.
        if (key.size() < 2 || key.front() != '%' || key.back() != '%' || !_literal(key)) {
            keys_.clear();
            return false;
        }
    }
    keys_ = alternatives;
    usable_ = true;
    return true;
}

bool token_scan::find(const char* from, const char* end, const char*& matchBegin,
                      const char*& matchEnd) const {
    if (!usable_) {
        return false;
    }
    const std::string& last = keys_.back();
    while (from != end) {
        const char* at = static_cast<const char*>(std::memchr(from, '%', end - from));
        if (at == nullptr) {
            return false;
        }
        const std::size_t left = static_cast<std::size_t>(end - at);
        for (const std::string& key : keys_) {
            if (key.size() <= left && std::memcmp(at, key.data(), key.size()) == 0) {
                matchBegin = at;
                matchEnd = at + key.size();
                // The "+" of the expression repeats the last key's closing "%".
                if (&key == &last) {
                    while (matchEnd != end && *matchEnd == '%') {
                        ++matchEnd;
                    }
                }
                return true;
            }
        }
        from = at + 1;
    }
    return false;
}

}  // namespace internal
}  // namespace Osk
