#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "Toolkit/Exceptions.h"

namespace Tamlog {
namespace internal {
namespace severity {

// A severity is a small polymorphic value. Named severities are fixed
// objects in Tamlog::sev; sets of them are PropertyMaskCollections.
class TAMTK_API severity_mask {
public:
    virtual ~severity_mask();
    virtual boost::shared_ptr<severity_mask> clone() const = 0;
    virtual bool equal(const severity_mask& other) const;
};

template <unsigned N>
class TAMTK_API basic_severity : public severity_mask {
public:
    enum { value = N };
    boost::shared_ptr<severity_mask> clone() const override {
        return boost::shared_ptr<severity_mask>(new basic_severity(*this));
    }
    bool equal(const severity_mask& other) const override {
        return dynamic_cast<const basic_severity*>(&other) != nullptr;
    }
};

class TAMTK_API basic_noop : public severity_mask {
public:
    boost::shared_ptr<severity_mask> clone() const override;
    bool equal(const severity_mask& other) const override;
};

// Debug output is enabled bit by bit: a debug severity carries 64 debug bits.
class TAMTK_API debug_severity : public severity_mask {
public:
    explicit debug_severity(std::uint64_t mask = 0) : mask_(mask) {}
    boost::shared_ptr<severity_mask> clone() const override;
    bool equal(const severity_mask& other) const override;
    std::uint64_t mask() const { return mask_; }

private:
    std::uint64_t mask_;
};

}  // namespace severity
}  // namespace internal

typedef internal::severity::severity_mask severity_mask;

namespace sev {
TAMTK_API extern const internal::severity::basic_noop no_sev;
TAMTK_API extern const internal::severity::basic_severity<0> critical;
TAMTK_API extern const internal::severity::basic_severity<1> alert;
TAMTK_API extern const internal::severity::basic_severity<2> error;
TAMTK_API extern const internal::severity::basic_severity<3> warning;
TAMTK_API extern const internal::severity::basic_severity<4> notice;
TAMTK_API extern const internal::severity::basic_severity<5> info;
TAMTK_API extern const internal::severity::basic_severity<8> audit_success;
TAMTK_API extern const internal::severity::basic_severity<9> audit_fail;
TAMTK_API extern const internal::severity::debug_severity debug_def;
TAMTK_API extern const internal::severity::debug_severity debug_all;
}  // namespace sev

}  // namespace Tamlog

namespace Tamtk {

// A set of cloned masks, compared with `equal`. Inserting a mask that is
// already present leaves the collection unchanged.
template <class Mask>
class PropertyMaskCollection {
public:
    typedef boost::shared_ptr<Mask> pointer;
    typedef typename std::vector<pointer>::const_iterator const_iterator;

    PropertyMaskCollection() = default;
    PropertyMaskCollection(const Mask& m) { insert(m); }  // NOLINT: a single severity is a set

    void insert(const Mask& m) { insert_clone(m.clone()); }
    void insert_clone(const pointer& p) {
        if (!p) {
            throw NullPointerException(ExceptionString("Cannot insert null pointer"),
                                       TAMTK_HERE("PropertyMaskCollection"));
        }
        if (!is(*p)) {
            members_.push_back(p);
        }
    }
    void insert(const PropertyMaskCollection& other) {
        for (const pointer& p : other.members_) insert_clone(p);
    }
    void erase(const Mask& m) {
        for (auto it = members_.begin(); it != members_.end(); ++it) {
            if ((*it)->equal(m)) {
                members_.erase(it);
                return;
            }
        }
    }
    void erase(const pointer& p) {
        if (!p) {
            throw NullPointerException(ExceptionString("cannot erase null pointer"),
                                       TAMTK_HERE("PropertyMaskCollection"));
        }
        erase(*p);
    }
    bool is(const Mask& m) const {
        for (const pointer& p : members_) {
            if (p->equal(m))
                return true;
        }
        return false;
    }
    bool empty() const { return members_.empty(); }
    std::size_t size() const { return members_.size(); }
    const_iterator begin() const { return members_.begin(); }
    const_iterator end() const { return members_.end(); }
    void clear() { members_.clear(); }

private:
    std::vector<pointer> members_;
};

}  // namespace Tamtk

namespace Tamlog {

typedef Tamtk::PropertyMaskCollection<severity_mask> SeverityBag;

// The debug bits of a debug severity; 0 for any other.
TAMTK_API std::uint64_t debug_mask(const severity_mask& s);
// The OR of the debug bits of all debug members.
TAMTK_API std::uint64_t debug_mask(const SeverityBag& c);

// The accept rule a target applies: a severity with debug bits is accepted
// when they meet the target's debug mask; any other when the target's
// collection holds an equal member.
TAMTK_API bool isSeverityIgnored(const SeverityBag& accepted, std::uint64_t debugMask,
                                 const severity_mask& s);
// A record is loggable when at least one of its severities is accepted.
TAMTK_API bool loggable(const SeverityBag& accepted, std::uint64_t debugMask,
                        const SeverityBag& record);

// The name a person reads in a log record: "critical", "alert", "error",
// "warning", "notice", "info", "audit_success", "audit_fail", "none" for
// no_sev, "debug" for a debug severity without bits and "debug(0x...)" with
// its bits otherwise; "unknown" for a class without a name.
TAMTK_API std::string severityName(const severity_mask& s);
// The names of all members joined by '|', in insertion order.
TAMTK_API std::string severityNames(const SeverityBag& c);

}  // namespace Tamlog
