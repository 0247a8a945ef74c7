#include "LogToolkit/Severity.h"

#include <cstdio>

namespace Tamlog {
namespace internal {
namespace severity {

severity_mask::~severity_mask() {}

bool severity_mask::equal(const severity_mask&) const {
    return false;
}

boost::shared_ptr<severity_mask> basic_noop::clone() const {
    return boost::shared_ptr<severity_mask>(new basic_noop(*this));
}

bool basic_noop::equal(const severity_mask& other) const {
    return dynamic_cast<const basic_noop*>(&other) != nullptr;
}

boost::shared_ptr<severity_mask> debug_severity::clone() const {
    return boost::shared_ptr<severity_mask>(new debug_severity(*this));
}

bool debug_severity::equal(const severity_mask& other) const {
    const debug_severity* d = dynamic_cast<const debug_severity*>(&other);
    return d != nullptr && d->mask_ == mask_;
}

// Explicit instantiations so that every library sees one set of vtables.
template class basic_severity<0>;
template class basic_severity<1>;
template class basic_severity<2>;
template class basic_severity<3>;
template class basic_severity<4>;
template class basic_severity<5>;
template class basic_severity<8>;
template class basic_severity<9>;
template class basic_severity<31>;

}  // namespace severity
}  // namespace internal

namespace sev {
const internal::severity::basic_noop no_sev;
const internal::severity::basic_severity<0> critical;
const internal::severity::basic_severity<1> alert;
const internal::severity::basic_severity<2> error;
const internal::severity::basic_severity<3> warning;
const internal::severity::basic_severity<4> notice;
const internal::severity::basic_severity<5> info;
const internal::severity::basic_severity<8> audit_success;
const internal::severity::basic_severity<9> audit_fail;
const internal::severity::debug_severity debug_def(0);
const internal::severity::debug_severity debug_all(~std::uint64_t(0));
}  // namespace sev

std::uint64_t debug_mask(const severity_mask& s) {
    const internal::severity::debug_severity* d =
        dynamic_cast<const internal::severity::debug_severity*>(&s);
    return d ? d->mask() : 0;
}

std::uint64_t debug_mask(const SeverityBag& c) {
    std::uint64_t bits = 0;
    for (const SeverityBag::pointer& p : c) {
        bits |= debug_mask(*p);
    }
    return bits;
}

bool isSeverityIgnored(const SeverityBag& accepted, std::uint64_t debugMask,
                       const severity_mask& s) {
    const std::uint64_t bits = debug_mask(s);
    if (bits != 0) {
        return (bits & debugMask) == 0;
    }
    return !accepted.is(s);
}

bool loggable(const SeverityBag& accepted, std::uint64_t debugMask, const SeverityBag& record) {
    for (const SeverityBag::pointer& p : record) {
        if (!isSeverityIgnored(accepted, debugMask, *p)) {
            return true;
        }
    }
    return false;
}

std::string severityName(const severity_mask& s) {
    static const struct {
        const severity_mask* sev;
        const char* name;
    } named[] = {
        {&sev::critical, "critical"},
        {&sev::alert, "alert"},
        {&sev::error, "error"},
        {&sev::warning, "warning"},
        {&sev::notice, "notice"},
        {&sev::info, "info"},
        {&sev::audit_success, "audit_success"},
        {&sev::audit_fail, "audit_fail"},
        {&sev::no_sev, "none"},
    };
    for (const auto& n : named) {
        if (n.sev->equal(s)) {
            return n.name;
        }
    }
    if (dynamic_cast<const internal::severity::debug_severity*>(&s) != nullptr) {
        const std::uint64_t bits = debug_mask(s);
        if (bits == 0) {
            return "debug";
        }
        char text[32];
        std::snprintf(text, sizeof text, "debug(0x%llx)", static_cast<unsigned long long>(bits));
        return text;
    }
    return "unknown";
}

std::string severityNames(const SeverityBag& c) {
    std::string out;
    for (const SeverityBag::pointer& p : c) {
        if (!out.empty()) {
            out += '|';
        }
        out += severityName(*p);
    }
    return out;
}

}  // namespace Tamlog
