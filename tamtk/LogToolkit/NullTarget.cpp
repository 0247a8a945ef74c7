#include "LogToolkit/NullTarget.h"

namespace Tamlog {

NullTarget::NullTarget(const std::string& name)
    : Target(name, Tamtk::makeCounted<TargetSettings>(standardSevMask())) {}

NullTarget::NullTarget(const std::string& name, const Tamtk::CountedRef<TargetSettings>& settings)
    : Target(name, settings->clone()) {}

void NullTarget::do_sendlog(const SeverityBag&, const Tamtk::Location&, const Event&,
                            const std::string&, const InfoBag&) const {}

Tamtk::CountedRef<Target> NullTarget::do_clone() const {
    return Tamtk::CountedRef<Target>(new NullTarget(*this));
}

}  // namespace Tamlog
