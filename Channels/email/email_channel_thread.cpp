// One thread per incident: the Message-ID that every mail of an incident
// follows up.

#include <strings.h>

#include <boost/uuid/detail/sha1.hpp>

#include "Channels/email/email_channel.h"

namespace Osk {

std::string email_channel::thread_id(const std::string& key) const {
    // SHA-1 (Boost's, header-only: the channel loads no crypto library for
    // it) rather than a hash of the standard library: the identifier must
    // not change with the compiler, the host or the run. It names an
    // incident and protects nothing, so a cryptographic hash is not needed,
    // only a stable one with no practical collisions. Its hex digits and the
    // checked sender domain cannot break a header line, whatever the key
    // holds.
    boost::uuids::detail::sha1 sha1;
    sha1.process_bytes(key.data(), key.size());
    boost::uuids::detail::sha1::digest_type digest;
    sha1.get_digest(digest);
    static const char hex[] = "0123456789abcdef";
    std::string id = "<incident.";
    for (unsigned int word = 0; word < 4; ++word) {  // 128 of its 160 bits
        for (int shift = 28; shift >= 0; shift -= 4) {
            id += hex[(digest[word] >> shift) & 0x0f];
        }
    }
    const std::string& domain = sender_.domain();
    return id + "@" + (domain.empty() ? std::string("localhost") : domain) + ">";
}

void email_channel::drop_thread_headers(std::map<std::string, std::string>& values) {
    for (auto it = values.begin(); it != values.end();) {
        const bool named = strcasecmp(it->first.c_str(), "References") == 0 ||
                           strcasecmp(it->first.c_str(), "In-Reply-To") == 0;
        it = named ? values.erase(it) : std::next(it);
    }
}

}  // namespace Osk
