#include "Agents/common/EngineParams.h"

namespace Osk {
namespace EmailAgents {

EngineParams readEngineParams(const ParamReader& reader) {
    EngineParams p;
    p.timeoutMs = reader.milliseconds("timeout", 30, 3600);
    if (reader.has("spool")) {
        p.spool = reader.required("spool");
    }
    p.drainMs = reader.milliseconds("drain", 30, 3600, true);
    p.connections = static_cast<unsigned>(reader.integer("connections", 2, 1, 16));
    p.queue = reader.flag("queue", false);
    if (p.queue && p.spool.empty()) {
        // Queued mail lives only in the spool: without one it would be
        // reported delivered and then lost with the process.
        reader.fail("queue", "is \"yes\" without \"spool\"; queued mail must be kept in a spool");
    }
    return p;
}

}  // namespace EmailAgents
}  // namespace Osk
