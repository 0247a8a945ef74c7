#include "Agents/common/oauth2/TokenSources.h"

#include "Agents/common/oauth2/ClientAssertion.h"
#include "Agents/common/oauth2/Jwt.h"
#include "Agents/common/oauth2/SecretFiles.h"
#include "Agents/common/oauth2/TokenCommand.h"
#include "Agents/common/oauth2/TokenEndpoint.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _assertionType = "urn:ietf:params:oauth:client-assertion-type:jwt-bearer";

class EndpointSource : public TokenSource {
public:
    explicit EndpointSource(const OAuth2Settings& settings) : s_(settings) {}

    Token fetch() override {
        Form form = {{"client_id", s_.clientId}};
        if (!s_.clientSecretFile.empty()) {
            form.emplace_back("client_secret",
                              readSecretFile(s_.clientSecretFile, "OAuth2 client secret"));
        }
        if (s_.source == TokenSourceKind::ClientCertificate) {
            form.emplace_back("client_assertion_type", _assertionType);
            form.emplace_back(
                "client_assertion",
                clientAssertion(s_.clientCertificate, s_.clientKey, s_.clientId, s_.tokenUrl));
        }
        if (!s_.scope.empty()) {
            form.emplace_back("scope", s_.scope);
        }
        if (s_.source != TokenSourceKind::RefreshToken) {
            form.emplace_back("grant_type", "client_credentials");
            const TokenResponse r = requestToken(s_, form);
            return {r.accessToken, tokenLifetime(r.accessToken, r.expiresIn)};
        }
        const char* const what = "OAuth2 refresh token";
        SecretFileLock lock(s_.refreshTokenFile);
        const std::string refreshToken = readSecretFile(s_.refreshTokenFile, what);
        form.emplace_back("grant_type", "refresh_token");
        form.emplace_back("refresh_token", refreshToken);
        const TokenResponse r = requestToken(s_, form);
        // Saved before the access token is used: the endpoint may retire the
        // old refresh token as soon as it sees the new one at work.
        if (!r.refreshToken.empty() && r.refreshToken != refreshToken) {
            replaceSecretFile(s_.refreshTokenFile, r.refreshToken, what);
        }
        return {r.accessToken, tokenLifetime(r.accessToken, r.expiresIn)};
    }

private:
    const OAuth2Settings s_;
};

class CommandSource : public TokenSource {
public:
    explicit CommandSource(const OAuth2Settings& settings) : s_(settings) {}

    Token fetch() override {
        const std::string token = runTokenCommand(s_.command, s_.context.timeoutMs);
        return {token, tokenLifetime(token, 0)};
    }

private:
    const OAuth2Settings s_;
};

}  // namespace

std::unique_ptr<TokenSource> makeTokenSource(const OAuth2Settings& settings) {
    if (settings.source == TokenSourceKind::Command) {
        return std::make_unique<CommandSource>(settings);
    }
    return std::make_unique<EndpointSource>(settings);
}

}  // namespace EmailAgents
}  // namespace Osk
