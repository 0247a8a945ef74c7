#pragma once

// The SMTP agent's settings, read from its <EmailAgent> parameters.

#include <chrono>
#include <string>
#include <vector>

#include "Agents/common/AgentParams.h"
#include "Agents/common/oauth2/OAuth2Settings.h"

namespace Osk {
namespace EmailAgents {

enum class StartTls { No, Try, Required };

struct SmtpSettings {
    std::string url;                    // "url" as given: one or more relays, blank-separated
    std::vector<std::string> relays;    // smtp://host[:port][/ehlo-name] or smtps://..., in order
    StartTls starttls = StartTls::Try;  // "starttls": no, try, required
    bool verifyPeer = true;             // "verify_peer"
    std::string caFile;                 // "ca_file"
    long tlsMinVersion = 0;             // "tls_min_version" as a CURL_SSLVERSION_*; 0: libcurl's
    // "client_certificate", "client_key": PEM files for relays that know
    // their senders by certificate; both or neither.
    std::string clientCertificate;
    std::string clientKey;
    std::string username;      // "username"
    std::string password;      // "password", or read from "password_file"
    std::string passwordFile;  // "password_file"; empty when not given
    // "auth=oauth2": the user signs in with a token instead of the password.
    OAuth2Settings oauth2;
    // "allow_plaintext_auth": credentials may cross an unencrypted link. Off,
    // they never do: with credentials, starttls=try is taken as required.
    bool allowPlaintextAuth = false;
    long timeoutMs = 30000;    // "timeout", in seconds
    std::string spool;         // "spool": directory; empty: none
    long drainMs = 30000;      // "drain": seconds spent on the spool at exit; 0: none
    unsigned connections = 2;  // "connections": parallel connections draining the spool
    bool queue = false;        // "queue": a delivery ends once the mail is spooled

    // Not parameters: how spooled messages are retried, and whether one
    // connection serves many messages. Tests and benchmarks change them.
    std::chrono::milliseconds retryFirst{1000};
    std::chrono::milliseconds retryMax{60000};
    bool reuseConnection = true;
    // Retry what an earlier run left in the spool as soon as the agent
    // starts. Off for a caller that drains the spool itself and wants every
    // outcome in its own result.
    bool retryAtStart = true;

    // Throws AgentParamException for unknown names and bad values; the texts
    // never contain the user name or the password.
    static SmtpSettings fromParams(const Params& params);

    // A warning when the password file or the client key lets its group or
    // others read it; empty when neither does (or there is none).
    std::string secretFileWarning() const;

    bool hasCredentials() const { return !username.empty(); }
    // STARTTLS is required only because credentials must not go out in clear.
    bool tlsForCredentials() const {
        return hasCredentials() && !allowPlaintextAuth && starttls == StartTls::Try;
    }
    // The level the connection is held to.
    StartTls effectiveStartTls() const {
        return tlsForCredentials() ? StartTls::Required : starttls;
    }
};

}  // namespace EmailAgents
}  // namespace Osk
