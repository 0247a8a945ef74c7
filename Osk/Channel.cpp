#include "Osk/Channel.h"

#include <cstdio>
#include <mutex>
#include <stdexcept>

namespace Osk {

namespace {

std::mutex& _reporterLock() {
    static std::mutex lock;
    return lock;
}

Reporter& _defaultReporter() {
    static Reporter reporter;
    return reporter;
}

}  // namespace

Channel::Channel(const std::string& name) : name_(name), hostState_(false) {}

Channel::~Channel() {}

std::exception_ptr Channel::do_send_test(const std::string&, const std::string&,
                                         const std::vector<std::string>&) {
    throw std::logic_error("the channel " + name_ + " sends no test notification");
}

void Channel::set_reporter(Reporter reporter) {
    reporter_ = std::move(reporter);
}

void Channel::set_finding_reporter(FindingReporter reporter) {
    findingReporter_ = std::move(reporter);
}

void Channel::report_finding(const std::string& text) {
    try {
        if (findingReporter_) {
            findingReporter_(text);
        }
    } catch (...) {
        // Reporting must never take the channel down.
    }
}

void Channel::set_default_reporter(Reporter reporter) {
    std::lock_guard<std::mutex> guard(_reporterLock());
    _defaultReporter() = std::move(reporter);
}

void Channel::report_error(const Tamlog::internal::severity::severity_mask& sev, const char* text) {
    try {
        report_error(sev, std::string(text ? text : ""));
    } catch (...) {
    }
}

void Channel::report_error(const Tamlog::internal::severity::severity_mask& sev,
                           const std::string& text) {
    (void)hostState_;
    try {
        Reporter reporter = reporter_;
        if (!reporter) {
            std::lock_guard<std::mutex> guard(_reporterLock());
            reporter = _defaultReporter();
        }
        if (reporter) {
            reporter(sev, text);
            return;
        }
        std::fprintf(stderr, "%s: %s: %s\n", name_.c_str(), Tamlog::severityName(sev).c_str(),
                     text.c_str());
    } catch (...) {
        // Reporting must never take the channel down.
    }
}

}  // namespace Osk
