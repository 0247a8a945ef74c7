#pragma once

// osk-spool flush: delivers what waits in the SMTP agent's spool now, with
// the agent configured exactly as the channel configuration configures it.

#include <ostream>
#include <string>

namespace Osk {

// Reads the EmailAgent parameters of the channel configuration `config` and
// drains that agent's spool. Tells on `out` what was done and on `err` each
// mail that could not be delivered. Returns the exit status of osk-spool
// flush: 0 nothing waits afterwards, 1 mail still waits (or the spool is
// locked by another process), 2 the configuration is unusable.
int flushSpool(const std::string& config, std::ostream& out, std::ostream& err);

}  // namespace Osk
