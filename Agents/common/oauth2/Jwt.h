#pragma once

// The bits of JSON Web Tokens (RFC 7519) a client needs: the base64url
// alphabet, and how long a token it was handed will last.

#include <chrono>
#include <string>

namespace Osk {
namespace EmailAgents {

// Base64 with the URL alphabet and no padding (RFC 4648 section 5).
std::string base64Url(const std::string& bytes);
// The bytes, or "" when `text` is not base64url.
std::string fromBase64Url(const std::string& text);

// How long `token` lasts from now: `expiresIn` seconds when the endpoint
// said (above 0), else the "exp" claim when the token is a JWT (the token is
// not checked, only read), else five minutes. Never below one second.
std::chrono::seconds tokenLifetime(const std::string& token, long expiresIn);

}  // namespace EmailAgents
}  // namespace Osk
