#pragma once

// The SMTP agent: the delivery engine (DeliveryEngine.h) with the relays of
// its settings as transport. What they cannot take now waits in the spool;
// what they refuse for good is kept in the spool's failed/.

#include "Agents/common/DeliveryEngine.h"
#include "Agents/smtp/SmtpSettings.h"

namespace Osk {
namespace EmailAgents {

class SmtpAgent : public DeliveryEngine {
public:
    // Throws AgentParamException for a spool folder others may write to.
    explicit SmtpAgent(const SmtpSettings& settings);
};

// The agent for one set of parameters: made on first use and kept for the
// life of the process. Throws AgentParamException for bad parameters.
SmtpAgent& smtpAgentFor(const Params& params);

}  // namespace EmailAgents
}  // namespace Osk
