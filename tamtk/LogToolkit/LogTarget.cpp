#include "LogToolkit/LogTarget.h"

#include <exception>
#include <functional>
#include <map>
#include <optional>

#include "LogToolkit/Failure.h"

namespace Tamlog {

using Tamtk::CountedRef;

namespace internal {
namespace util {

Tamtk::FastMutex& config_lock() {
    // Never destroyed: targets may still log while static objects go away.
    static Tamtk::FastMutex* lock = new Tamtk::FastMutex;
    return *lock;
}

}  // namespace util
}  // namespace internal

namespace {

const char* const _source = "LogTarget";
const char* const _stderrName = "stderr";
const char* const _osloggerName = "oslogger";

typedef std::map<std::string, CountedRef<Target>> Registry;
typedef Tamtk::ScopeLock<Tamtk::FastMutex> ConfigHold;

// Guarded by config_lock; never destroyed, like the lock.
Registry& _registry() {
    static Registry* registry = new Registry;
    return *registry;
}

std::optional<CountedRef<Target>> _find(const std::string& name) {
    Registry::const_iterator it = _registry().find(name);
    if (it == _registry().end()) {
        return std::nullopt;
    }
    return it->second;
}

// Call with the configuration lock held.
CountedRef<Target> _findOrThrow(const std::string& name) {
    std::optional<CountedRef<Target>> found = _find(name);
    if (!found) {
        TAMTK_THROW(TargetUnknown, _source, "Could not acquire target by name of " << name);
    }
    return *found;
}

void _install(const CountedRef<Target>& target) {
    Registry::iterator it = _registry().find(target->name());
    if (it != _registry().end()) {
        it->second = target;
    } else {
        _registry().emplace(target->name(), target);
    }
}

// A reinstalled standard target keeps accepting what its predecessor did.
void _inherit(TargetSettings& settings, const std::string& name) {
    std::optional<CountedRef<Target>> previous = _find(name);
    if (previous) {
        CountedRef<TargetSettings> old = (*previous)->getSettings();
        settings.setSeverities(old->severities());
        settings.setDebugMask(old->debugMask());
    }
}

CountedRef<Target> _installStdErr(
    StdErrBuffering buffering,
    const std::function<CountedRef<Target>(const CountedRef<TargetSettings>&)>& make) {
    CountedRef<StreamTargetSettings> settings = Tamtk::makeCounted<StreamTargetSettings>();
    settings->setBuffering(buffering);
    ConfigHold hold(internal::util::config_lock());
    _inherit(*settings, _stderrName);
    CountedRef<Target> target = make(settings);
    _install(target);
    return target;
}

}  // namespace

LogTarget LogTarget::registerTarget(const CountedRef<Target>& target) {
    const std::string name = target->name();
    if (name.empty()) {
        TAMTK_THROW(LogException, _source, "Empty string is reserved");
    }
    bool exists = false;
    try {
        ConfigHold hold(internal::util::config_lock());
        exists = _find(name).has_value();
        if (!exists) {
            target->assert_settings(target->getSettings());
            _registry().emplace(name, target);
        }
    } catch (...) {
        throw internal::util::wrapCurrent<LogException>("Failed to add target",
                                                        TAMTK_HERE(_source));
    }
    if (exists) {
        TAMTK_THROW(LogException, _source, "A target by name of " << name << " already exists");
    }
    return LogTarget(target);
}

LogTarget LogTarget::byname(const std::string& name) {
    std::optional<CountedRef<Target>> found;
    try {
        ConfigHold hold(internal::util::config_lock());
        found = _find(name);
    } catch (...) {
        throw internal::util::wrapCurrent<LogException>(
            "Unexpected error when attemptiong to acquire target", TAMTK_HERE(_source));
    }
    if (!found) {
        TAMTK_THROW(TargetUnknown, _source, "Could not acquire target by name of " << name);
    }
    return LogTarget(*found);
}

void LogTarget::deregister(const std::string& name) {
    if (name.empty() || name == _stderrName || name == _osloggerName) {
        TAMTK_THROW(LogException, _source, "This is a reserved entry and cannot be removed");
    }
    std::optional<CountedRef<Target>> removed;  // released after the lock
    ConfigHold hold(internal::util::config_lock());
    removed = _findOrThrow(name);
    _registry().erase(name);
}

void LogTarget::updateSettings(const std::string& name,
                               const CountedRef<TargetSettings>& settings) {
    ConfigHold hold(internal::util::config_lock());
    CountedRef<Target> target = _findOrThrow(name);
    try {
        target->assert_settings(settings);
    } catch (...) {
        const std::string text = "A settings instance of " + settings->typeName() +
                                 " is not valid for a target of " + target->typeName();
        throw internal::util::wrapCurrent<LogException>(text.c_str(), TAMTK_HERE(_source));
    }
    target->setSettings(settings);
}

CountedRef<TargetSettings> LogTarget::getSettings(const std::string& name) {
    ConfigHold hold(internal::util::config_lock());
    return _findOrThrow(name)->getSettings();
}

LogTarget LogTarget::initStdErr(StdErrBuffering buffering, StdErrCharType charType) {
    return LogTarget(_installStdErr(buffering, [charType](const CountedRef<TargetSettings>& s) {
        if (charType == StdErrCharType::wide) {
            return CountedRef<Target>(new WideStdErrTarget(_stderrName, std::wcerr, s));
        }
        return CountedRef<Target>(new StdErrTarget(_stderrName, std::cerr, s));
    }));
}

LogTarget LogTarget::initStdErr(std::ostream& out, StdErrBuffering buffering) {
    return LogTarget(_installStdErr(buffering, [&out](const CountedRef<TargetSettings>& s) {
        return CountedRef<Target>(new LockedStreamTarget(_stderrName, out, s));
    }));
}

LogTarget LogTarget::initOSLogger(const posix_syslog::init_data& data) {
    try {
        ConfigHold hold(internal::util::config_lock());
        posix_syslog::init_subsystem(data);
        std::optional<CountedRef<Target>> current = _find(_osloggerName);
        if (current && current->as<OSLoggerTarget>() != nullptr) {
            current->as<OSLoggerTarget>()->setFacility(data.facility);
            return LogTarget(*current);
        }
        CountedRef<OSLoggerTargetSettings> settings = Tamtk::makeCounted<OSLoggerTargetSettings>();
        settings->setFacility(data.facility);
        _inherit(*settings, _osloggerName);
        CountedRef<Target> target(new OSLoggerTarget(_osloggerName, settings));
        _install(target);
        return LogTarget(target);
    } catch (...) {
        throw internal::util::wrapCurrent<LogException>(
            "Unexpected error when attemptiong to check up on or register oslogger",
            TAMTK_HERE(_source));
    }
}

void LogTarget::foreachSetSevMask(const SeverityBag& severities) {
    ConfigHold hold(internal::util::config_lock());
    for (const auto& entry : _registry()) {
        entry.second->setSevMask(severities);
    }
}

void LogTarget::foreachResetSevMask() {
    ConfigHold hold(internal::util::config_lock());
    for (const auto& entry : _registry()) {
        entry.second->resetSevMask();
    }
}

LogTargetSet operator|(const LogTarget& a, const LogTarget& b) {
    LogTargetSet out;
    out.insert(a);
    out.insert(b);
    return out;
}

LogTargetSet operator|(const LogTargetSet& a, const LogTarget& b) {
    LogTargetSet out(a);
    out.insert(b);
    return out;
}

LogTargetSet operator|(const LogTarget& a, const LogTargetSet& b) {
    return b | a;
}

LogTargetSet operator|(const LogTargetSet& a, const LogTargetSet& b) {
    LogTargetSet out(a);
    out.insert(b.begin(), b.end());
    return out;
}

LogTargetSet& operator|=(LogTargetSet& a, const LogTarget& b) {
    a.insert(b);
    return a;
}

LogTargetSet& operator|=(LogTargetSet& a, const LogTargetSet& b) {
    a.insert(b.begin(), b.end());
    return a;
}

bool loggable(const LogTargetSet& targets, const SeverityBag& severities) {
    for (const LogTarget& t : targets) {
        if (t.loggable(severities)) {
            return true;
        }
    }
    return false;
}

void sendlog(const LogTargetSet& targets, const SeverityBag& severities,
             const Tamtk::Location& where, const Event& event, const std::string& why,
             const InfoBag& info) {
    std::exception_ptr first;
    for (const LogTarget& t : targets) {
        try {
            t.sendlog(severities, where, event, why, info);
        } catch (...) {
            if (!first) {
                first = std::current_exception();
            }
        }
    }
    if (first) {
        std::rethrow_exception(first);
    }
}

void sendlog(const LogTarget& target, const SeverityBag& severities, const Tamtk::Location& where,
             const Event& event, const std::string& why, const InfoBag& info) {
    target.sendlog(severities, where, event, why, info);
}

}  // namespace Tamlog
