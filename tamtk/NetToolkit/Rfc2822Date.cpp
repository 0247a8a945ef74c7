#include "NetToolkit/Rfc2822Date.h"

#include <ctime>

#include "Toolkit/Time.h"

namespace Tamnet {

std::string rfc2822Date(long time) {
    const std::tm fields = Tamtk::localtime(time);
    // Ample for the format in any real locale.
    char buffer[200];
    const std::size_t length =
        std::strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S %z", &fields);
    return std::string(buffer, length);
}

}  // namespace Tamnet
