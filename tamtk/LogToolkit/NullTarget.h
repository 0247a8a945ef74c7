#pragma once

#include "LogToolkit/Target.h"

namespace Tamlog {

// Accepts records and writes nothing: a place to send what nobody wants to
// read without changing the code that sends it.
class TAMTK_API NullTarget : public Target {
public:
    explicit NullTarget(const std::string& name);
    NullTarget(const std::string& name, const Tamtk::CountedRef<TargetSettings>& settings);

    void do_sendlog(const SeverityBag& severities, const Tamtk::Location& where, const Event& event,
                    const std::string& why, const InfoBag& info) const override;
    Tamtk::CountedRef<Target> do_clone() const override;
};

}  // namespace Tamlog
