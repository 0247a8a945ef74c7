#pragma once

#include <functional>
#include <map>
#include <string>

#include "LogToolkit/Severity.h"
#include "Toolkit/Location.h"

namespace Tamlog {

// What happened, in a word or two ("startup", "delivery").
typedef std::string Event;
// Extra name/value pairs that travel with a record.
typedef std::map<std::string, std::string> InfoBag;

// Turns one record into the text a target writes (without a line end).
typedef std::function<std::string(const SeverityBag& severities, const Tamtk::Location& where,
                                  const Event& event, const std::string& why, const InfoBag& info)>
    RecordFormatter;

// The one-line layout of the standard targets:
//   EVENT: <event> SEV: <names> WHY: <why>[ INFO: k=v, k=v]  [<location>]
// Severities are named by severityNames; the location's function is shown
// only when it is known, and a default-constructed location is left out.
TAMTK_API std::string formatRecord(const SeverityBag& severities, const Tamtk::Location& where,
                                   const Event& event, const std::string& why, const InfoBag& info);

}  // namespace Tamlog
