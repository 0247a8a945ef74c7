#include "Toolkit/Metrics.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "Toolkit/QuietThread.h"

namespace Tamtk {

namespace {

std::string _number(double value) {
    if (std::isinf(value)) {
        return value > 0 ? "+Inf" : "-Inf";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.15g", value);
    return text;
}

// A label value or help text, with the escapes the format defines: a line
// break or backslash (and, in a label value, a double quote) would end it.
std::string _escaped(const std::string& text, bool quote) {
    std::string out;
    for (const char c : text) {
        if (c == '\\' || (quote && c == '"')) {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return out;
}

// Writes all of `text` to `fd`; false with errno set when it cannot.
bool _writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Replaces the file `path` with `text`; "" or why it could not. A reader
// only ever sees a complete file: the text goes to a name of its own
// beside it (the collector skips names that begin with a dot), renamed
// over it once written.
std::string _replace(const std::string& path, const std::string& text) {
    const std::size_t slash = path.rfind('/');
    const std::size_t base = slash == std::string::npos ? 0 : slash + 1;
    const std::string temporary =
        path.substr(0, base) + "." + path.substr(base) + "." + std::to_string(::getpid()) + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return std::strerror(errno);
    }
    const bool written = _writeAll(fd, text);
    const int err = errno;
    std::string problem;
    if (::close(fd) != 0 || !written) {
        problem = std::strerror(written ? errno : err);
    } else if (::rename(temporary.c_str(), path.c_str()) != 0) {
        problem = std::strerror(errno);
    }
    if (!problem.empty()) {
        ::unlink(temporary.c_str());
    }
    return problem;
}

}  // namespace

void MetricsText::family(const std::string& name, const char* type, const std::string& help) {
    text_ +=
        "# HELP " + name + " " + _escaped(help, false) + "\n# TYPE " + name + " " + type + "\n";
}

void MetricsText::sample(const std::string& name, double value, const MetricLabels& labels) {
    text_ += name;
    for (std::size_t i = 0; i < labels.size(); ++i) {
        text_ += (i == 0 ? "{" : ",") + labels[i].first + "=\"" + _escaped(labels[i].second, true) +
                 "\"";
    }
    text_ += (labels.empty() ? " " : "} ") + _number(value) + "\n";
}

void MetricsText::single(const std::string& name, const char* type, const std::string& help,
                         double value) {
    family(name, type, help);
    sample(name, value);
}

Histogram::Histogram(std::vector<double> bounds)
    : bounds_(std::move(bounds)), counts_(bounds_.size() + 1, 0) {}

void Histogram::observe(double value) {
    std::size_t i = 0;
    while (i < bounds_.size() && value > bounds_[i]) {
        ++i;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_[i];
    sum_ += value;
}

void Histogram::write(MetricsText& out, const std::string& name, const std::string& help) const {
    std::lock_guard<std::mutex> lock(mutex_);
    out.family(name, "histogram", help);
    unsigned long cumulative = 0;
    for (std::size_t i = 0; i < counts_.size(); ++i) {
        cumulative += counts_[i];
        const double bound = i < bounds_.size() ? bounds_[i] : INFINITY;
        out.sample(name + "_bucket", static_cast<double>(cumulative), {{"le", _number(bound)}});
    }
    out.sample(name + "_sum", sum_);
    out.sample(name + "_count", static_cast<double>(cumulative));
}

MetricsFile::MetricsFile(std::string path, Collect collect, std::chrono::milliseconds period)
    : path_(std::move(path)), collect_(std::move(collect)), period_(period) {
    write();
    thread_ = quietThread([this] { loop(); });
}

MetricsFile::~MetricsFile() {
    stop();
}

void MetricsFile::stop() noexcept {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) {
            return;
        }
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
    write();
}

void MetricsFile::loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, period_, [this] { return stopping_; })) {
        lock.unlock();
        write();
        lock.lock();
    }
}

std::string MetricsFile::write() noexcept {
    std::string problem;
    try {
        problem = _replace(path_, collect_());
    } catch (const std::exception& e) {
        problem = e.what();  // the figures of the last write stand
    }
    std::lock_guard<std::mutex> lock(writeMutex_);
    if (!problem.empty() && !failing_) {
        std::cerr << "metrics: \"" << path_ << "\" cannot be written: " << problem << std::endl;
    }
    failing_ = !problem.empty();
    return problem;
}

}  // namespace Tamtk
