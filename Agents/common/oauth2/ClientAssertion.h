#pragma once

// A client's proof of identity by certificate instead of a secret: a JWT
// signed with the client's private key (RFC 7523), as Microsoft Entra ID
// expects it for a certificate registered with an application.

#include <string>

namespace Osk {
namespace EmailAgents {

// The signed assertion (RS256) for `clientId` at `tokenUrl`, valid for five
// minutes: iss = sub = clientId, aud = tokenUrl, a fresh jti, nbf/iat/exp;
// its header names the certificate by its SHA-1 ("x5t") and SHA-256
// ("x5t#S256") thumbprints. Reads both PEM files on every call, so a renewed
// certificate is taken without a restart. Throws OAuth2ConfigException when
// a file cannot be read, the key is not an unencrypted RSA key, or it does
// not belong to the certificate.
std::string clientAssertion(const std::string& certificateFile, const std::string& keyFile,
                            const std::string& clientId, const std::string& tokenUrl);

}  // namespace EmailAgents
}  // namespace Osk
