#pragma once

// The digest agent's own parameters; every other one belongs to the agent
// it stands in front of.

#include <string>
#include <utility>

#include "Agents/common/AgentParams.h"

namespace Osk {
namespace EmailAgents {

struct DigestSettings {
    std::string agent;         // "agent": the library that delivers, required
    unsigned long burst = 10;  // "burst": mails passed straight through per window
    long windowMs = 300000;    // "window", in seconds
    std::string hold;          // "hold": where held mail waits, required
    std::string metrics;       // "metrics": the file of DigestAgent.h's figures; "" for none
    Params inner;              // the rest, for the delivering agent unchanged

    // Throws AgentParamException naming the parameter for a bad value.
    static DigestSettings fromParams(const Params& params);
    // The digest agent's own parameters (first) and the rest (second).
    static std::pair<Params, Params> split(const Params& params);
    // Only the delivering agent and its parameters, for when the digest's
    // own are unusable and mail goes straight through. Throws
    // AgentParamException when "agent" is missing or empty.
    static DigestSettings deliveringOnly(const Params& params);
};

}  // namespace EmailAgents
}  // namespace Osk
