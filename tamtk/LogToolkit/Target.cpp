#include "LogToolkit/Target.h"

#include <typeinfo>

#include "Toolkit/Abi.h"

namespace Tamlog {

using Tamtk::CountedRef;

TargetSettings::TargetSettings() : debugMask_(0) {}

TargetSettings::TargetSettings(const SeverityBag& accepted, std::uint64_t debugMask)
    : severities_(accepted), debugMask_(debugMask) {}

TargetSettings::~TargetSettings() {}

CountedRef<TargetSettings> TargetSettings::clone() const {
    return CountedRef<TargetSettings>(do_clone());
}

TargetSettings* TargetSettings::do_clone() const {
    return new TargetSettings(*this);
}

std::string TargetSettings::typeName() const {
    return Tamtk::internal::abi::demangle(typeid(*this).name());
}

void TargetSettings::accept(const severity_mask& s) {
    const std::uint64_t bits = debug_mask(s);
    if (bits != 0) {
        debugMask_ |= bits;
    } else {
        severities_.insert(s);
    }
}

void TargetSettings::accept(const SeverityBag& c) {
    for (const SeverityBag::pointer& p : c) accept(*p);
}

void TargetSettings::refuse(const severity_mask& s) {
    const std::uint64_t bits = debug_mask(s);
    if (bits != 0) {
        debugMask_ &= ~bits;
    } else {
        severities_.erase(s);
    }
}

void TargetSettings::refuse(const SeverityBag& c) {
    for (const SeverityBag::pointer& p : c) refuse(*p);
}

bool TargetSettings::isSeverityIgnored(const severity_mask& s) const {
    return Tamlog::isSeverityIgnored(severities_, debugMask_, s);
}

bool TargetSettings::loggable(const SeverityBag& record) const {
    return Tamlog::loggable(severities_, debugMask_, record);
}

Target::Target(const std::string& name, const CountedRef<TargetSettings>& settings)
    : name_(name), settings_(settings) {}

Target::Target(const Target& other) : name_(other.name_), settings_(other.getSettings()) {}

Target::~Target() {}

std::string Target::typeName() const {
    return Tamtk::internal::abi::demangle(typeid(*this).name());
}

CountedRef<TargetSettings> Target::currentSettings() const {
    Tamtk::ScopeLock<Tamtk::FastMutex> hold(lock_);
    return settings_;
}

CountedRef<TargetSettings> Target::getSettings() const {
    return currentSettings()->clone();
}

void Target::changeSettings(const std::function<void(TargetSettings&)>& change) {
    Tamtk::ScopeLock<Tamtk::FastMutex> hold(lock_);
    CountedRef<TargetSettings> next = settings_->clone();
    change(*next);
    settings_ = next;
}

void Target::setSettings(const CountedRef<TargetSettings>& settings) {
    assert_settings(settings);
    CountedRef<TargetSettings> copy = settings->clone();
    Tamtk::ScopeLock<Tamtk::FastMutex> hold(lock_);
    settings_ = copy;
}

void Target::assert_settings(CountedRef<TargetSettings>) const {}

void Target::setSevMask(const severity_mask& s) {
    changeSettings([&s](TargetSettings& next) { next.accept(s); });
}

void Target::setSevMask(const SeverityBag& c) {
    changeSettings([&c](TargetSettings& next) { next.accept(c); });
}

void Target::resetSevMask(const severity_mask& s) {
    changeSettings([&s](TargetSettings& next) { next.refuse(s); });
}

void Target::resetSevMask(const SeverityBag& c) {
    changeSettings([&c](TargetSettings& next) { next.refuse(c); });
}

void Target::resetSevMask() {
    const SeverityBag defaults = getDefaultSevMask();
    changeSettings([&defaults](TargetSettings& next) {
        next.setSeverities(defaults);
        next.setDebugMask(0);
    });
}

bool Target::isSeverityIgnored(const severity_mask& s) const {
    return currentSettings()->isSeverityIgnored(s);
}

bool Target::loggable(const SeverityBag& record) const {
    return currentSettings()->loggable(record);
}

std::uint64_t Target::getDebugLevel() const {
    return currentSettings()->debugMask();
}

SeverityBag Target::useableSeverities(const SeverityBag& record) const {
    const CountedRef<TargetSettings> settings = currentSettings();
    SeverityBag usable;
    for (const SeverityBag::pointer& p : record) {
        if (!settings->isSeverityIgnored(*p)) {
            usable.insert_clone(p);
        }
    }
    return usable;
}

SeverityBag Target::standardSevMask() {
    SeverityBag bag;
    bag.insert(sev::critical);
    bag.insert(sev::alert);
    bag.insert(sev::error);
    bag.insert(sev::warning);
    bag.insert(sev::notice);
    bag.insert(sev::info);
    bag.insert(sev::audit_success);
    bag.insert(sev::audit_fail);
    return bag;
}

SeverityBag Target::getDefaultSevMask() const {
    return standardSevMask();
}

void Target::sendlog(const SeverityBag& severities, const Tamtk::Location& where,
                     const Event& event, const std::string& why, const InfoBag& info) const {
    if (loggable(severities)) {
        do_sendlog(severities, where, event, why, info);
    }
}

}  // namespace Tamlog
