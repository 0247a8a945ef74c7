#pragma once

// How an agent signs in with OAuth2, read from its <EmailAgent> parameters:
//
//   auth                       password (the default where username is given) or oauth2
//   oauth2_mechanism           XOAUTH2 (default) or OAUTHBEARER
//   username                   the mailbox the token is for
//   oauth2_provider            microsoft365 (with oauth2_tenant) or google: fills
//                              oauth2_token_url and oauth2_scope unless given
//   oauth2_token_url, oauth2_client_id, oauth2_scope
// and exactly one token source:
//   oauth2_client_secret_file                      client credentials with a secret
//   oauth2_client_certificate + oauth2_client_key  client credentials with a signed assertion
//   oauth2_refresh_token_file                      a delegated refresh token (rotated in place)
//   oauth2_token_command                           a program printing the token
//
// The settings hold file names, never the secrets themselves: those are read
// when a token is fetched.

#include <string>
#include <vector>

#include "Agents/common/AgentParams.h"

namespace Osk {
namespace EmailAgents {

enum class OAuth2Mechanism { XOAuth2, OAuthBearer };
enum class TokenSourceKind { ClientSecret, ClientCertificate, RefreshToken, Command };

// What the agent has read already and the token endpoint shares with its
// mail connections.
struct OAuth2Context {
    std::string caFile;               // "ca_file"; empty: the system's
    bool verifyPeer = true;           // "verify_peer"
    bool allowPlaintextAuth = false;  // "allow_plaintext_auth": an http:// endpoint is taken
    long timeoutMs = 30000;           // "timeout": one request to the endpoint, one command run
    // The scope microsoft365 defaults to: Exchange Online's for SMTP; a Graph
    // agent asks for "https://graph.microsoft.com/.default".
    std::string microsoft365Scope = "https://outlook.office365.com/.default";
};

struct OAuth2Settings {
    bool enabled = false;  // auth=oauth2; nothing below is set otherwise
    OAuth2Mechanism mechanism = OAuth2Mechanism::XOAuth2;
    std::string username;
    TokenSourceKind source = TokenSourceKind::ClientSecret;
    std::string tokenUrl;
    std::string clientId;
    std::string scope;
    std::string clientSecretFile;      // ClientSecret; optional with RefreshToken
    std::string clientCertificate;     // ClientCertificate: PEM
    std::string clientKey;             // ClientCertificate: PEM, RSA
    std::string refreshTokenFile;      // RefreshToken
    std::vector<std::string> command;  // Command: program and arguments
    OAuth2Context context;
};

// The parameter names readOAuth2Settings reads, for the agent's own list of
// known names.
const std::vector<const char*>& oauth2ParamNames();

// Reads the names of oauth2ParamNames() from `params` and ignores the rest.
// Throws AgentParamException naming `agent` for a missing, conflicting or
// malformed value; the texts hold file names and URLs, never a secret.
OAuth2Settings readOAuth2Settings(const char* agent, const Params& params,
                                  const OAuth2Context& context);

// For --check: the files named can be read (and the key matches the
// certificate), the command's program can be run. Throws OAuth2ConfigException
// otherwise, and CheckWarningException when a secret file can be read by its
// group or by others. Fetches nothing.
void checkOAuth2Settings(const OAuth2Settings& settings);

}  // namespace EmailAgents
}  // namespace Osk
