#include "LogToolkit/OSLoggerTarget.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "LogToolkit/Failure.h"
#include "Toolkit/Locks.h"

namespace Tamlog {

namespace {
const char* const _source = "OSLoggerTarget";

Tamtk::FastMutex& _openLock() {
    static Tamtk::FastMutex* lock = new Tamtk::FastMutex;
    return *lock;
}

// openlog keeps the identity pointer, so its text must stay put while the
// log is open; it is replaced only after openlog has taken the new one.
std::string*& _identity() {
    static std::string* ident = nullptr;
    return ident;
}
}  // namespace

namespace posix_syslog {

init_data::init_data() : facility(LOG_USER), options(LOG_PID) {}

init_data::init_data(const std::string& ident_)
    : ident(ident_), facility(LOG_USER), options(LOG_PID) {}

init_data::init_data(const std::string& ident_, int facility_)
    : ident(ident_), facility(facility_), options(LOG_PID) {}

bool isFacility(int facility) {
    return facility >= 0 && (facility & ~LOG_FACMASK) == 0 && LOG_FAC(facility) < LOG_NFACILITIES;
}

void init_subsystem(const init_data& data) {
    if (!isFacility(data.facility)) {
        const int error = EINVAL;
        TAMTK_THROW(LogException, "posix_syslog",
                    "Could not initialise subsystem. Last system error (" << error << ") reports "
                                                                          << std::strerror(error));
    }
    Tamtk::ScopeLock<Tamtk::FastMutex> hold(_openLock());
    std::unique_ptr<std::string> next(data.ident.empty() ? nullptr : new std::string(data.ident));
    ::openlog(next ? next->c_str() : nullptr, data.options, data.facility);
    delete _identity();
    _identity() = next.release();
}

void init_subsystem(const char* ident, int facility) {
    init_subsystem(init_data(ident ? ident : "", facility));
}

int default_converter(const SeverityBag& severities) {
    static const struct {
        const severity_mask* sev;
        int level;
    } levels[] = {
        {&sev::alert, LOG_ALERT},     {&sev::critical, LOG_CRIT}, {&sev::error, LOG_ERR},
        {&sev::warning, LOG_WARNING}, {&sev::notice, LOG_NOTICE}, {&sev::info, LOG_INFO},
    };
    int level = 0;
    for (const auto& l : levels) {
        if (severities.is(*l.sev)) {
            level |= l.level;
        }
    }
    if (debug_mask(severities) != 0) {
        level |= LOG_DEBUG;
    }
    return level;
}

std::string default_formatter(const SeverityBag& severities, const Tamtk::Location& where,
                              const Event& event, const std::string& why, const InfoBag& info) {
    return formatRecord(severities, where, event, why, info);
}

}  // namespace posix_syslog

OSLoggerTargetSettings::OSLoggerTargetSettings()
    : OSLoggerTargetSettings(OSLoggerTarget::standardSevMask()) {}

OSLoggerTargetSettings::OSLoggerTargetSettings(const SeverityBag& accepted, std::uint64_t debugMask)
    : TargetSettings(accepted, debugMask),
      formatter_(posix_syslog::default_formatter),
      converter_(posix_syslog::default_converter),
      facility_(LOG_USER) {}

void OSLoggerTargetSettings::setFormatter(const RecordFormatter& formatter) {
    if (!formatter) {
        TAMTK_THROW(LogException, _source, "In attempt to set new formatter for OSLoggerTarget");
    }
    formatter_ = formatter;
}

void OSLoggerTargetSettings::setSevConverter(const SeverityConverter& converter) {
    if (!converter) {
        TAMTK_THROW(LogException, _source,
                    "In attempt to set new severity converter for OSLoggerTarget");
    }
    converter_ = converter;
}

void OSLoggerTargetSettings::setFacility(int facility) {
    if (!posix_syslog::isFacility(facility)) {
        TAMTK_THROW(LogException, _source, "In attempt to set new facility for OSLoggerTarget");
    }
    facility_ = facility;
}

TargetSettings* OSLoggerTargetSettings::do_clone() const {
    return new OSLoggerTargetSettings(*this);
}

OSLoggerTarget::OSLoggerTarget(const std::string& name)
    : Target(name, Tamtk::makeCounted<OSLoggerTargetSettings>()) {}

OSLoggerTarget::OSLoggerTarget(const std::string& name,
                               const Tamtk::CountedRef<TargetSettings>& settings)
    : Target(name, settings->clone()) {
    OSLoggerTarget::assert_settings(settings);
}

void OSLoggerTarget::assert_settings(Tamtk::CountedRef<TargetSettings> settings) const {
    if (settings.as<OSLoggerTargetSettings>() == nullptr) {
        TAMTK_THROW(LogException, _source,
                    "Settings of type " << settings->typeName()
                                        << " is incompatiable with OSLoggerTargetSettings");
    }
}

void OSLoggerTarget::setFormatter(const RecordFormatter& formatter) {
    changeSettings([&formatter](TargetSettings& next) {
        dynamic_cast<OSLoggerTargetSettings&>(next).setFormatter(formatter);
    });
}

void OSLoggerTarget::setSevConverter(const SeverityConverter& converter) {
    changeSettings([&converter](TargetSettings& next) {
        dynamic_cast<OSLoggerTargetSettings&>(next).setSevConverter(converter);
    });
}

void OSLoggerTarget::setFacility(int facility) {
    changeSettings([facility](TargetSettings& next) {
        dynamic_cast<OSLoggerTargetSettings&>(next).setFacility(facility);
    });
}

void OSLoggerTarget::do_sendlog(const SeverityBag& severities, const Tamtk::Location& where,
                                const Event& event, const std::string& why,
                                const InfoBag& info) const {
    const Tamtk::CountedRef<TargetSettings> current = currentSettings();
    const OSLoggerTargetSettings* settings = current.as<OSLoggerTargetSettings>();
    TAMTK_ASSERT(settings != nullptr, _source);
    int level = 0;
    std::string text;
    try {
        level = settings->converter()(severities);
        text = settings->formatter()(severities, where, event, why, info);
    } catch (...) {
        throw internal::util::wrapCurrent<SendlogFailure>(
            "Failure in attempt to send an event to the POSIX syslog system", TAMTK_HERE(_source));
    }
    if ((level & ~LOG_PRIMASK) != 0) {
        TAMTK_THROW(SendlogFailure, _source, "Could not send event to POSIX syslog system");
    }
    // The text goes in as an argument, never as the format: it may hold '%'.
    ::syslog(LOG_MAKEPRI(settings->facility(), level), "%s", text.c_str());
}

Tamtk::CountedRef<Target> OSLoggerTarget::do_clone() const {
    return Tamtk::CountedRef<Target>(new OSLoggerTarget(*this));
}

SeverityBag OSLoggerTarget::standardSevMask() {
    SeverityBag bag = Target::standardSevMask();
    bag.erase(sev::audit_success);
    bag.erase(sev::audit_fail);
    return bag;
}

SeverityBag OSLoggerTarget::getDefaultSevMask() const {
    return standardSevMask();
}

}  // namespace Tamlog
