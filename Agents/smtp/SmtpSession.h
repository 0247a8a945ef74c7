#pragma once

// One SMTP client of one relay over libcurl. The curl handle keeps its
// connection open between messages, so consecutive messages share one
// connection while the server allows it. A connection that failed in any way
// (a reply timed out, the link broke, an error answer) is closed at once and
// never reused: a hung server must not be asked again on the same socket.

#include <atomic>
#include <string>
#include <vector>

#include "Agents/common/Transport.h"
#include "Agents/smtp/SmtpSettings.h"
#include "Agents/smtp/Transcript.h"

typedef void CURL;

namespace Osk {
namespace EmailAgents {

class TokenCache;

// The message with every line ending in CR LF, as SMTP requires. Existing
// CR LF pairs are kept; a lone CR or LF becomes CR LF.
std::string toWireFormat(const char* message);

class SmtpSession {
public:
    // `relay` is one of settings.relays. `abort`, when set, stops a transfer
    // under way (used at shutdown and when a drain runs out of time).
    // `tokens`, the agent's one cache, signs in with OAuth2 (settings.oauth2);
    // null without it.
    SmtpSession(const SmtpSettings& settings, const std::string& relay,
                const std::atomic<bool>* abort, TokenCache* tokens);
    ~SmtpSession();
    SmtpSession(const SmtpSession&) = delete;
    SmtpSession& operator=(const SmtpSession&) = delete;

    // One transaction: MAIL FROM `from`, RCPT TO each of `to`, then `wire`
    // (already in wire format; libcurl adds the dot-stuffing). Never throws
    // for delivery problems: the outcome says what happened to whom. A token
    // that cannot be had throws OAuth2ConfigException or
    // OAuth2TemporaryException: no relay would be any better.
    Attempt send(const std::string& from, const std::vector<std::string>& to,
                 const std::string& wire);

    // Reaches `relay` as a delivery would: connects, TLS as configured, EHLO,
    // signs in when credentials are configured (with a token of `tokens`
    // under OAuth2), then QUIT; sends no mail. Empty when every step passed,
    // else the step that failed and why.
    static std::string probe(const SmtpSettings& settings, const std::string& relay,
                             TokenCache* tokens);

    // Sets up libcurl's global state, once per process.
    static void initialise();

    // Removes the user name and the password from a text meant for a message.
    std::string redact(std::string text) const;

    const std::string& relay() const { return relay_; }

private:
    void open();
    void drop();
    Attempt perform(const std::string& from, const std::vector<std::string>& to,
                    const std::string& wire, bool freshConnection);
    Attempt judge(int code, const std::vector<std::string>& to, const std::string& curlText) const;

    const SmtpSettings& settings_;
    const std::string relay_;
    const std::atomic<bool>* abort_;
    TokenCache* const tokens_;
    CURL* curl_;
    Transcript transcript_;
};

}  // namespace EmailAgents
}  // namespace Osk
