#include "Programs/osk-host/Metrics.h"

#include <cstdio>

namespace Osk {

unsigned long peakMemoryKib() {
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (status == nullptr)
        return 0;
    char line[256];
    unsigned long kib = 0;
    while (std::fgets(line, sizeof line, status) != nullptr) {
        if (std::sscanf(line, "VmHWM: %lu kB", &kib) == 1)
            break;
    }
    std::fclose(status);
    return kib;
}

HostMetrics::HostMetrics(const std::string& path, const HostLog& log)
    : log_(log), started_(std::chrono::steady_clock::now()) {
    file_.reset(new Tamtk::MetricsFile(path, [this] { return text(); }));
}

void HostMetrics::update(const Figures& figures) {
    // The log's counts change on this thread only: copied here, read there.
    const std::map<std::string, unsigned long> reports = log_.counts();
    std::lock_guard<std::mutex> lock(mutex_);
    figures_ = figures;
    reports_ = reports;
}

void HostMetrics::finish(const Figures& figures) {
    update(figures);
    file_->stop();
}

std::string HostMetrics::text() const {
    std::lock_guard<std::mutex> lock(mutex_);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
    Tamtk::MetricsText out;
    out.single("osk_host_events_read_total", "counter", "Events read.",
               static_cast<double>(figures_.events));
    out.single("osk_host_events_skipped_total", "counter",
               "Events skipped: malformed, or over a bound.",
               static_cast<double>(figures_.skipped));
    out.single("osk_host_alerts_sent_total", "counter", "Alerts handed to the agent.",
               static_cast<double>(figures_.sent));
    out.single("osk_host_alerts_lost_total", "counter", "Alerts neither delivered nor kept.",
               static_cast<double>(figures_.lost));
    out.family("osk_host_reports_total", "counter", "Reports of the channel, by severity.");
    for (const auto& count : reports_) {
        out.sample("osk_host_reports_total", static_cast<double>(count.second),
                   {{"severity", count.first}});
    }
    out.single("osk_host_events_per_second", "gauge", "Events read per second of the run.",
               seconds > 0 ? figures_.events / seconds : 0.0);
    out.single("osk_host_peak_memory_bytes", "gauge", "Peak resident memory of the process.",
               1024.0 * static_cast<double>(peakMemoryKib()));
    return out.str();
}

}  // namespace Osk
