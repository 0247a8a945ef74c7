#pragma once

// Keeps one stylesheet run within its time and memory. libxslt has no limit
// of either: a branching recursion runs for years and a string doubled in a
// loop takes gigabytes long before any output could be measured.
//
// While a RunBound is alive on a thread, two hooks watch that thread's run:
// libxslt's trace hook, which fires at every template, instruction and
// variable, checks the clock; libxml2's allocator counts the bytes the run
// holds. Past either bound the run is stopped (its context's state and its
// XPath context's operation limit), and an allocation that would take it
// over its memory is refused. Both hooks are process-wide but pass every
// call of other threads, and of this thread outside a run, straight to what
// was installed before; their state is per thread.

#include <libxslt/xsltInternals.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace Tamxml {
namespace internal {

// Installs the hooks; once per process, before the first run.
void installRunHooks();

class RunBound {
public:
    RunBound(xsltTransformContextPtr context, std::chrono::milliseconds time, std::size_t memory);
    ~RunBound();
    RunBound(const RunBound&) = delete;
    RunBound& operator=(const RunBound&) = delete;

    // Why the run was stopped; empty while it is within its bounds.
    const std::string& stopReason() const { return reason_; }

    // For the hooks of this thread's run.
    void tick();
    // admit() refuses what would take the run past its memory (and stops
    // it); add() counts without asking, for what malloc rounds up.
    bool admit(std::size_t more);
    void add(std::size_t more);
    void release(std::size_t less);

private:
    void stop(const std::string& reason);

    xsltTransformContextPtr context_;
    std::chrono::steady_clock::time_point deadline_;
    std::chrono::milliseconds time_;
    std::size_t memory_;
    std::size_t held_ = 0;
    unsigned ticks_ = 0;
    std::string reason_;
    RunBound* outer_;
};

}  // namespace internal
}  // namespace Tamxml
