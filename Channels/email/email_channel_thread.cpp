// One thread per incident: the Message-ID that every mail of an incident
// follows up.

#include <openssl/evp.h>
#include <strings.h>

#include "Channels/email/email_channel.h"

namespace Osk {

namespace {
const char* const _source = "email_channel";
}  // namespace

std::string email_channel::thread_id(const std::string& key) const {
    // SHA-256 rather than a hash of the standard library: the identifier
    // must not change with the compiler, the host or the run. Its hex digits
    // and the checked sender domain cannot break a header line, whatever the
    // key holds.
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(key.data(), key.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
        TAMTK_THROW(Tamtk::Exception, _source, "SHA-256 of a thread key failed");
    }
    static const char hex[] = "0123456789abcdef";
    std::string id = "<incident.";
    for (unsigned int i = 0; i < 16 && i < length; ++i) {
        id += hex[digest[i] >> 4];
        id += hex[digest[i] & 0x0f];
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
