#pragma once

// Figures for a monitoring system, in the Prometheus text exposition format,
// kept the way node_exporter's textfile collector reads them: one file,
// replaced whole (written beside it, then renamed over it), so a reader never
// sees half of it.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Toolkit/Export.h"

namespace Tamtk {

typedef std::vector<std::pair<std::string, std::string>> MetricLabels;

// The text of one file: each family's # HELP and # TYPE lines, then its
// samples.
class TAMTK_API MetricsText {
public:
    // `type`: "counter", "gauge" or "histogram".
    void family(const std::string& name, const char* type, const std::string& help);
    // One sample of the family begun last (`name` with its _total, _bucket... ending).
    void sample(const std::string& name, double value, const MetricLabels& labels = {});
    // A family of one sample.
    void single(const std::string& name, const char* type, const std::string& help, double value);
    const std::string& str() const { return text_; }

private:
    std::string text_;
};

// Observations counted into buckets of upper bounds (ascending); thread-safe.
class TAMTK_API Histogram {
public:
    explicit Histogram(std::vector<double> bounds);
    void observe(double value);
    // The family `name` with its cumulative _bucket samples, _sum and _count.
    void write(MetricsText& out, const std::string& name, const std::string& help) const;

private:
    mutable std::mutex mutex_;
    const std::vector<double> bounds_;
    std::vector<unsigned long> counts_;  // per bucket; the last one is +Inf
    double sum_ = 0;
};

// Replaces the file `path` with what `collect` gives, now, then every
// `period` from a thread of its own that takes no signal, and a last time
// at stop(). A write that fails is told on standard error (once, until one
// succeeds again); the run goes on.
class TAMTK_API MetricsFile {
public:
    typedef std::function<std::string()> Collect;
    MetricsFile(std::string path, Collect collect,
                std::chrono::milliseconds period = std::chrono::seconds(5));
    ~MetricsFile();
    MetricsFile(const MetricsFile&) = delete;
    MetricsFile& operator=(const MetricsFile&) = delete;

    // Ends the thread and writes the last figures; later calls do nothing.
    void stop() noexcept;
    // Writes the figures now; "" or why they could not be written.
    std::string write() noexcept;

private:
    void loop();

    const std::string path_;
    const Collect collect_;
    const std::chrono::milliseconds period_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::mutex writeMutex_;
    bool failing_ = false;  // the last write failed, and said so
    std::thread thread_;
};

}  // namespace Tamtk
