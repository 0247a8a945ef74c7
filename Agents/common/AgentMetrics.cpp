#include "Agents/common/AgentMetrics.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _outcomes[][2] = {
    {"email_agent_spooled_total", "Mails (or recipients' parts of them) kept to be retried."},
    {"email_agent_refused_total",
     "Mails (or recipients' parts of them) refused for good and kept aside."},
    {"email_agent_lost_total", "Mails (or recipients' parts of them) kept nowhere."},
};

}  // namespace

const char* causeLabel(Cause cause) {
    static const char* const labels[] = {"unknown",   "connect",   "tls",  "auth",  "token",
                                         "temporary", "permanent", "disk", "config"};
    return labels[static_cast<std::size_t>(cause)];
}

AgentMetrics::AgentMetrics() : deliveryTime_({0.1, 0.5, 1, 5, 30, 60, 300, 900, 3600, 14400}) {
    for (auto& row : counts_) {
        for (auto& n : row) {
            n = 0;
        }
    }
}

void AgentMetrics::delivered(double seconds) {
    ++delivered_;
    deliveryTime_.observe(seconds < 0 ? 0 : seconds);
}

void AgentMetrics::count(Outcome outcome, Cause cause) {
    ++counts_[static_cast<std::size_t>(outcome)][static_cast<std::size_t>(cause)];
}

void AgentMetrics::write(Tamtk::MetricsText& out) const {
    out.single("email_agent_delivered_total", "counter", "Mails delivered to every recipient.",
               static_cast<double>(delivered_));
    for (std::size_t o = 0; o < counts_.size(); ++o) {
        const std::string name = _outcomes[o][0];
        out.family(name, "counter", _outcomes[o][1]);
        // The engine always judges a cause: "unknown" is left out.
        for (std::size_t c = 1; c < causes; ++c) {
            out.sample(name, static_cast<double>(counts_[o][c]),
                       {{"reason", causeLabel(static_cast<Cause>(c))}});
        }
    }
    deliveryTime_.write(out, "email_agent_delivery_seconds",
                        "Time from the agent taking a mail to its delivery.");
}

}  // namespace EmailAgents
}  // namespace Osk
