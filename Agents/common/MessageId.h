#pragma once

// Message-ID values for mail the agents write themselves.

#include <string>

namespace Osk {
namespace EmailAgents {

// "<seconds.micros.pid.count.random@host>", angle brackets included: unique
// across processes and hosts without any shared state.
std::string newMessageId();

}  // namespace EmailAgents
}  // namespace Osk
