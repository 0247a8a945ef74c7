#pragma once

// osk-host's figures for a monitoring system (--metrics FILE), in the
// Prometheus text format (Toolkit/Metrics.h): rewritten every few seconds
// while the run lasts, and a last time at its very end.
//
//   osk_host_events_read_total          events read
//   osk_host_events_skipped_total       events skipped (malformed, over a bound)
//   osk_host_alerts_sent_total          alerts handed to the agent
//   osk_host_alerts_lost_total          alerts lost
//   osk_host_reports_total{severity}    reports of the channel
//   osk_host_events_per_second          events read per second of the run
//   osk_host_peak_memory_bytes          peak resident memory

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Programs/osk-host/HostLog.h"
#include "Toolkit/Metrics.h"

namespace Osk {

// The process's peak resident size in KiB, 0 when unknown. VmHWM belongs to
// this program's own address space; getrusage() would also count whatever
// the parent had resident when it started us.
unsigned long peakMemoryKib();

class HostMetrics {
public:
    struct Figures {
        unsigned long events = 0;
        unsigned long skipped = 0;
        unsigned long sent = 0;
        unsigned long lost = 0;
    };

    // Writes `path` from now on.
    HostMetrics(const std::string& path, const HostLog& log);
    // The figures so far, from the thread that reports to `log`.
    void update(const Figures& figures);
    // The last figures, after the plug-ins' exit work; later updates are
    // not written.
    void finish(const Figures& figures);

private:
    std::string text() const;

    const HostLog& log_;
    const std::chrono::steady_clock::time_point started_;
    mutable std::mutex mutex_;
    Figures figures_;
    std::map<std::string, unsigned long> reports_;
    std::unique_ptr<Tamtk::MetricsFile> file_;
};

}  // namespace Osk
