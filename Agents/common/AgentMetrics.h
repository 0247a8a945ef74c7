#pragma once

// What an agent tells a monitoring system about its mail (parameter
// "metrics": the file, see Toolkit/Metrics.h): mails delivered, and mails
// kept or lost by cause. The counts are cheap, so an agent keeps them
// whether or not a file is written.
//
//   email_agent_delivered_total           mails delivered to every recipient
//   email_agent_spooled_total{reason}     mails (recipients' parts) kept to be retried
//   email_agent_refused_total{reason}     parts refused for good, kept aside
//   email_agent_lost_total{reason}        mails (parts) kept nowhere
//   email_agent_delivery_seconds          histogram: from accepted to delivered

#include <array>
#include <atomic>
#include <string>

#include "Agents/common/Transport.h"
#include "Toolkit/Metrics.h"

namespace Osk {
namespace EmailAgents {

// "connect", "tls", ...: the `reason` label of a cause.
const char* causeLabel(Cause cause);

class AgentMetrics {
public:
    enum class Outcome { Spooled, Refused, Lost };

    AgentMetrics();
    void delivered(double seconds);
    void count(Outcome outcome, Cause cause);
    // Every family above, each reason with its own sample (0 included, so
    // that a rule sees the series before the first failure).
    void write(Tamtk::MetricsText& out) const;

private:
    static const std::size_t causes = static_cast<std::size_t>(Cause::Config) + 1;
    std::atomic<unsigned long> delivered_{0};
    std::array<std::array<std::atomic<unsigned long>, causes>, 3> counts_;
    Tamtk::Histogram deliveryTime_;
};

}  // namespace EmailAgents
}  // namespace Osk
