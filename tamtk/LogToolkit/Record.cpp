#include "LogToolkit/Record.h"

#include <sstream>

namespace Tamlog {

std::string formatRecord(const SeverityBag& severities, const Tamtk::Location& where,
                         const Event& event, const std::string& why, const InfoBag& info) {
    std::ostringstream out;
    out << "EVENT: " << event << " SEV: " << severityNames(severities) << " WHY: " << why;
    if (!info.empty()) {
        out << " INFO: ";
        const char* separator = "";
        for (const auto& item : info) {
            out << separator << item.first << '=' << item.second;
            separator = ", ";
        }
    }
    // A record without a known origin (file and line both unset) carries no
    // location rather than a meaningless "?:0".
    if (where.line != 0 || (where.file.c_str() && *where.file.c_str())) {
        out << "  [" << where << ']';
    }
    return out.str();
}

}  // namespace Tamlog
