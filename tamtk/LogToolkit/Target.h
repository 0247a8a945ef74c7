#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "LogToolkit/CountedRef.h"
#include "LogToolkit/Record.h"
#include "LogToolkit/Severity.h"
#include "Toolkit/Locks.h"

namespace Tamlog {

// What a target accepts: a collection of severities and 64 debug bits.
// Each kind of target has its own specialisation carrying what it needs to
// write (formatter, facility, ...).
class TAMTK_API TargetSettings {
public:
    TargetSettings();
    explicit TargetSettings(const SeverityBag& accepted, std::uint64_t debugMask = 0);
    virtual ~TargetSettings();
    TargetSettings& operator=(const TargetSettings&) = default;

    // A copy of the same dynamic type.
    Tamtk::CountedRef<TargetSettings> clone() const;
    // The readable name of the dynamic type, for messages.
    std::string typeName() const;

    const SeverityBag& severities() const { return severities_; }
    void setSeverities(const SeverityBag& accepted) { severities_ = accepted; }
    std::uint64_t debugMask() const { return debugMask_; }
    void setDebugMask(std::uint64_t bits) { debugMask_ = bits; }

    // A debug severity with bits adds (removes) its bits to (from) the debug
    // mask; any other severity joins (leaves) the collection.
    void accept(const severity_mask& s);
    void accept(const SeverityBag& c);
    void refuse(const severity_mask& s);
    void refuse(const SeverityBag& c);

    bool isSeverityIgnored(const severity_mask& s) const;
    bool loggable(const SeverityBag& record) const;

protected:
    TargetSettings(const TargetSettings&) = default;
    virtual TargetSettings* do_clone() const;

private:
    SeverityBag severities_;
    std::uint64_t debugMask_;
};

// A destination for log records. A target is safe to use from several
// threads: its settings are never changed in place, every change installs a
// new copy, so a record being written sees one consistent state.
class TAMTK_API Target {
public:
    virtual ~Target();
    Target& operator=(const Target&) = delete;

    const std::string& name() const { return name_; }
    // The readable name of the dynamic type, for messages.
    std::string typeName() const;

    // Add to the accepted severities.
    void setSevMask(const severity_mask& s);
    void setSevMask(const SeverityBag& c);
    // Remove from the accepted severities.
    void resetSevMask(const severity_mask& s);
    void resetSevMask(const SeverityBag& c);
    // Back to getDefaultSevMask() and no debug bits.
    void resetSevMask();

    bool isSeverityIgnored(const severity_mask& s) const;
    // True when at least one severity of the record is accepted.
    bool loggable(const SeverityBag& record) const;
    std::uint64_t getDebugLevel() const;
    // The severities of `record` that this target accepts.
    SeverityBag useableSeverities(const SeverityBag& record) const;
    // What a new target of this kind accepts.
    virtual SeverityBag getDefaultSevMask() const;

    // A copy of the current settings: changing it changes nothing until it
    // is handed back through setSettings or LogTarget::updateSettings.
    Tamtk::CountedRef<TargetSettings> getSettings() const;
    // Checks the settings with assert_settings, then installs a copy.
    void setSettings(const Tamtk::CountedRef<TargetSettings>& settings);

    // Writes the record when it is loggable; drops it silently otherwise.
    void sendlog(const SeverityBag& severities, const Tamtk::Location& where, const Event& event,
                 const std::string& why, const InfoBag& info = InfoBag()) const;

    // Writes one record unconditionally; failures raise SendlogFailure.
    virtual void do_sendlog(const SeverityBag& severities, const Tamtk::Location& where,
                            const Event& event, const std::string& why,
                            const InfoBag& info) const = 0;
    // A new target of the same kind and name with a copy of the settings.
    virtual Tamtk::CountedRef<Target> do_clone() const = 0;
    // Raises LogException when `settings` do not fit this kind of target; the
    // base accepts any settings.
    virtual void assert_settings(Tamtk::CountedRef<TargetSettings> settings) const;

    // Every named severity except no_sev, the default of the standard targets.
    static SeverityBag standardSevMask();

protected:
    // Installs `settings` as they are (derived constructors check them).
    Target(const std::string& name, const Tamtk::CountedRef<TargetSettings>& settings);
    // Same name, own copy of the settings.
    Target(const Target& other);

    // The installed settings; shared, never changed afterwards.
    Tamtk::CountedRef<TargetSettings> currentSettings() const;
    // Applies `change` to a copy of the settings and installs the copy; when
    // `change` throws, nothing changes.
    void changeSettings(const std::function<void(TargetSettings&)>& change);

private:
    std::string name_;
    mutable Tamtk::FastMutex lock_;
    Tamtk::CountedRef<TargetSettings> settings_;
};

}  // namespace Tamlog
