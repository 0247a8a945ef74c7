#pragma once

#include <iosfwd>
#include <set>
#include <string>

#include "LogToolkit/CountedRef.h"
#include "LogToolkit/OSLoggerTarget.h"
#include "LogToolkit/StreamTarget.h"
#include "LogToolkit/Target.h"
#include "Toolkit/Locks.h"

namespace Tamlog {

namespace internal {
namespace util {
// Guards the process-wide registry of targets.
TAMTK_API Tamtk::FastMutex& config_lock();
}  // namespace util
}  // namespace internal

// A light handle on a registered target: its name and a counted reference to
// the target. A handle keeps its target alive; a target removed from the
// registry still works through the handles that were taken before.
//
// The static members are the process-wide registry. Names are unique; ""
// can never be used, "stderr" and "oslogger" belong to initStdErr and
// initOSLogger and can never be removed.
class TAMTK_API LogTarget {
public:
    // Adds `target` under its name and returns its handle. Fails with "Empty
    // string is reserved", "A target by name of <name> already exists", or
    // "Failed to add target" (for instance when the target refuses its own
    // settings).
    static LogTarget registerTarget(const Tamtk::CountedRef<Target>& target);
    // The handle of a registered target; TargetUnknown when there is none.
    static LogTarget byname(const std::string& name);
    // Removes a target; the reserved names are refused.
    static void deregister(const std::string& name);
    // Replaces a target's settings with a copy of `settings`, refusing settings
    // that do not fit its kind.
    static void updateSettings(const std::string& name,
                               const Tamtk::CountedRef<TargetSettings>& settings);
    // A copy of a target's current settings.
    static Tamtk::CountedRef<TargetSettings> getSettings(const std::string& name);

    // Sets up "stderr" writing to std::cerr (std::wcerr for wide). When it is
    // set up already it is replaced, keeping what it accepts.
    static LogTarget initStdErr(StdErrBuffering buffering = StdErrBuffering::flushEachRecord,
                                StdErrCharType charType = StdErrCharType::narrow);
    // Sets up "stderr" writing to `out`, which must outlive the target
    // (capture in tests, a file). Writers of `out` are serialised.
    static LogTarget initStdErr(std::ostream& out,
                                StdErrBuffering buffering = StdErrBuffering::flushEachRecord);
    // Opens the system log with the identity and facility of `data` and sets
    // up "oslogger" writing at that facility. Calling it again reopens the
    // log and keeps the target and what it accepts.
    static LogTarget initOSLogger(const posix_syslog::init_data& data);

    // Adds `severities` to what every registered target accepts.
    static void foreachSetSevMask(const SeverityBag& severities);
    // Puts every registered target back to its default severities.
    static void foreachResetSevMask();

    const std::string& name() const { return target_->name(); }
    const Tamtk::CountedRef<Target>& target() const { return target_; }
    bool loggable(const SeverityBag& severities) const { return target_->loggable(severities); }
    // Writes the record when the target accepts it.
    void sendlog(const SeverityBag& severities, const Tamtk::Location& where, const Event& event,
                 const std::string& why, const InfoBag& info = InfoBag()) const {
        target_->sendlog(severities, where, event, why, info);
    }

private:
    explicit LogTarget(const Tamtk::CountedRef<Target>& target) : target_(target) {}

    Tamtk::CountedRef<Target> target_;
};

// Handles are ordered by name.
struct TAMTK_API bag_less {
    bool operator()(const LogTarget& a, const LogTarget& b) const { return a.name() < b.name(); }
};

// The targets one record goes to.
typedef std::set<LogTarget, bag_less> LogTargetSet;

TAMTK_API LogTargetSet operator|(const LogTarget& a, const LogTarget& b);
TAMTK_API LogTargetSet operator|(const LogTargetSet& a, const LogTarget& b);
TAMTK_API LogTargetSet operator|(const LogTarget& a, const LogTargetSet& b);
TAMTK_API LogTargetSet operator|(const LogTargetSet& a, const LogTargetSet& b);
TAMTK_API LogTargetSet& operator|=(LogTargetSet& a, const LogTarget& b);
TAMTK_API LogTargetSet& operator|=(LogTargetSet& a, const LogTargetSet& b);

// True when at least one target of the set accepts the severities.
TAMTK_API bool loggable(const LogTargetSet& targets, const SeverityBag& severities);

// Writes one record to every target of the set that accepts it. A target
// that fails does not keep the record from the others; the first failure is
// raised once all have been tried.
TAMTK_API void sendlog(const LogTargetSet& targets, const SeverityBag& severities,
                       const Tamtk::Location& where, const Event& event, const std::string& why,
                       const InfoBag& info = InfoBag());
TAMTK_API void sendlog(const LogTarget& target, const SeverityBag& severities,
                       const Tamtk::Location& where, const Event& event, const std::string& why,
                       const InfoBag& info = InfoBag());

}  // namespace Tamlog
