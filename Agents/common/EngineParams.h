#pragma once

// The parameters every agent built on the delivery engine reads the same
// way: where it spools, how long it drains at exit, how many connections
// deliver side by side, and whether a delivery waits for the server.

#include <chrono>
#include <string>

#include "Agents/common/AgentParams.h"

namespace Osk {
namespace EmailAgents {

struct EngineParams {
    long timeoutMs = 30000;    // "timeout", in seconds: one exchange with the server
    std::string spool;         // "spool": directory; empty: none
    long drainMs = 30000;      // "drain": seconds spent on the spool at exit; 0: none
    unsigned connections = 2;  // "connections": parallel connections draining the spool
    // "queue": a delivery ends once the mail is safe in the spool; the
    // engine sends it in the background. Needs a spool.
    bool queue = false;
};

// The names of the engine's parameters, for the agent's own list of known
// names: those readEngineParams reads, and "metrics", the file the
// engine's registry keeps its figures in.
const char* const engineParamNames[] = {"timeout",     "spool", "drain",
                                        "connections", "queue", "metrics"};

// Throws AgentParamException (through `reader`) for a bad value, and for
// queue=yes without a spool.
EngineParams readEngineParams(const ParamReader& reader);

}  // namespace EmailAgents
}  // namespace Osk
