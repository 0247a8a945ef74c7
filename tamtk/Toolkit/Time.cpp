#include "Toolkit/Time.h"

#include "Toolkit/Exceptions.h"

namespace Tamtk {

std::tm localtime(long const& time) {
    // localtime_r need not consult TZ again after the first conversion.
    ::tzset();
    const std::time_t when = static_cast<std::time_t>(time);
    std::tm fields{};
    if (::localtime_r(&when, &fields) == nullptr) {
        TAMTK_THROW(BadValueException, "Toolkit/Time",
                    "Time cannot be converted to local time [[ " << time << " ]]");
    }
    return fields;
}

}  // namespace Tamtk
