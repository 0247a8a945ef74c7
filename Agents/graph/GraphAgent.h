#pragma once

// The Microsoft Graph agent: the delivery engine (DeliveryEngine.h) with
// Graph's sendMail as transport, all its transports sharing one token and
// one pause Graph asks for.

#include <memory>

#include "Agents/common/DeliveryEngine.h"
#include "Agents/graph/GraphSettings.h"

namespace Osk {
namespace EmailAgents {

// A new agent for `settings`. Throws AgentParamException for a spool folder
// others may write to.
std::unique_ptr<DeliveryEngine> makeGraphAgent(const GraphSettings& settings);

// The agent for one set of parameters: made on first use and kept for the
// life of the process. Throws AgentParamException for bad parameters.
DeliveryEngine& graphAgentFor(const Params& params);

// What a probe finds: a token, then Graph's host over TLS. "" when both
// work, else a text that names the step that failed.
std::string probeGraph(const GraphSettings& settings);

}  // namespace EmailAgents
}  // namespace Osk
