#pragma once

// The SMTP agent's settings, read from its <EmailAgent> parameters.

#include <chrono>
#include <string>

#include "Agents/common/AgentParams.h"

namespace Osk {
namespace EmailAgents {

enum class StartTls { No, Try, Required };

struct SmtpSettings {
    std::string url;                    // "url": smtp://host[:port][/ehlo-name] or smtps://...
    StartTls starttls = StartTls::Try;  // "starttls": no, try, required
    bool verifyPeer = true;             // "verify_peer"
    std::string caFile;                 // "ca_file"
    std::string username;               // "username"
    std::string password;               // "password", or read from "password_file"
    long timeoutMs = 30000;             // "timeout", in seconds
    std::string spool;                  // "spool": directory; empty: none

    // Not parameters: how spooled messages are retried, and whether one
    // connection serves many messages. Tests and benchmarks change them.
    std::chrono::milliseconds retryFirst{1000};
    std::chrono::milliseconds retryMax{60000};
    bool reuseConnection = true;

    // Throws AgentParamException for unknown names and bad values; the texts
    // never contain the user name or the password.
    static SmtpSettings fromParams(const Params& params);
};

}  // namespace EmailAgents
}  // namespace Osk
