#pragma once

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "LogToolkit/Severity.h"
#include "Osk/ChannelCfg.h"
#include "Osk/ChannelEvent.h"
#include "Osk/Export.h"

namespace Osk {

// Receives every problem a channel reports. The host installs one; without
// one, reports go to standard error.
typedef std::function<void(const Tamlog::severity_mask& sev, const std::string& text)> Reporter;

// Receives what a channel accepted without a word while it was configured
// (a definition it skips, text it will send as written). A host that checks
// a configuration installs one; a running host does not, and the channel
// then neither looks for such findings nor reports them.
typedef std::function<void(const std::string& text)> FindingReporter;

// Base of every channel plug-in. The host creates a channel through the
// plug-in's `createChannel`, then calls do_configure, do_log/do_flush any
// number of times, do_shutdown, and releases it; calls on one channel are
// serialised by the host.
class OSK_API Channel {
public:
    explicit Channel(const std::string& name);
    virtual ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    virtual bool do_configure(const ChannelCfg& cfg) = 0;
    virtual void do_log(boost::shared_ptr<ChannelEvent> event) = 0;
    virtual void do_flush() = 0;
    virtual void do_shutdown() = 0;

    // One test notification of `subject` and `body` to `to` (plain
    // addresses; the configured recipients when empty), sent the way the
    // channel sends every alert but waited for: null when it was delivered,
    // else what the delivery threw. Called on a configured channel by
    // `osk-host --send-test`. A channel that cannot send one throws
    // std::logic_error.
    virtual std::exception_ptr do_send_test(const std::string& subject, const std::string& body,
                                            const std::vector<std::string>& to);

    // Records a problem of the channel; never throws.
    void report_error(const Tamlog::internal::severity::severity_mask& sev, const char* text);
    void report_error(const Tamlog::internal::severity::severity_mask& sev,
                      const std::string& text);

    const std::string& name() const { return name_; }

    // Records that an event's alert reached nobody and was kept nowhere.
    // The channel also reports why; the host reads the count for its summary.
    void count_lost_alert() noexcept { ++lostAlerts_; }
    unsigned long lost_alerts() const noexcept { return lostAlerts_; }
    // Records that an event's alert was handed to the agent.
    void count_sent_alert() noexcept { ++sentAlerts_; }
    unsigned long sent_alerts() const noexcept { return sentAlerts_; }

    // This channel's reporter; an empty one falls back to the default.
    void set_reporter(Reporter reporter);
    // The process-wide reporter used by channels without their own.
    static void set_default_reporter(Reporter reporter);

    void set_finding_reporter(FindingReporter reporter);
    bool wants_findings() const { return static_cast<bool>(findingReporter_); }
    // Records one finding when the host asked for them; never throws.
    void report_finding(const std::string& text);

private:
    std::string name_;
    bool hostState_;  // the host's own flag; channels never touch it
    Reporter reporter_;
    FindingReporter findingReporter_;
    std::atomic<unsigned long> lostAlerts_{0};
    std::atomic<unsigned long> sentAlerts_{0};
};

}  // namespace Osk
