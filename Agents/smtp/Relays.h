#pragma once

// The relays of one agent, tried in order like a mail server's fallback
// relays. A message goes to the relay that took the last one; when that
// relay cannot be reached or answers the whole message with a temporary
// refusal, the others are tried, in their configured order. A permanent
// refusal is final: another relay would refuse it for the same reason.
// They are the SMTP agent's transport.

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Agents/smtp/SmtpSession.h"

namespace Osk {
namespace EmailAgents {

class Relays : public Transport {
public:
    // `tokens`: the agent's OAuth2 token cache, shared by all its
    // transports; null without OAuth2.
    Relays(const SmtpSettings& settings, const std::atomic<bool>* abort, TokenCache* tokens);

    // The outcome at the relay that decided it (Attempt::relay); with every
    // relay failing, the last one's, marked a connection failure only when
    // none of them could be reached, and naming in `reason`s the relays
    // tried before it.
    // `message` goes out in wire format (toWireFormat). No token, no relay
    // is asked: every recipient waits, as for an unreachable server, and a
    // token endpoint refusing the client is a configuration fault.
    Attempt send(const std::string& from, const std::vector<std::string>& to,
                 const std::string& message) override;

private:
    std::vector<std::unique_ptr<SmtpSession>> sessions_;
    const std::atomic<bool>* abort_;
    std::size_t current_ = 0;
};

}  // namespace EmailAgents
}  // namespace Osk
