#pragma once

#include <ctime>

#include "Toolkit/Export.h"

namespace Tamtk {

// `time` (seconds since the epoch) broken down in the local time zone.
// Thread-safe, unlike std::localtime; the time zone is looked up again on
// every call, so a changed TZ takes effect. Raises BadValueException for a
// time the C library cannot represent.
TAMTK_API std::tm localtime(long const& time);

}  // namespace Tamtk
