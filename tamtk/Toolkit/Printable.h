#pragma once

// Text from outside (events, mail, file names) on a line of a terminal or a
// log: escaped so that it can neither start a line of its own nor drive the
// terminal.

#include <string>

#include "Toolkit/Export.h"

namespace Tamtk {

// `text` with its control characters (C0, DEL and the UTF-8 encoded C1
// range) written as escapes: \n, \r, \t, \xHH or \u00HH. Everything else
// is left as it is.
TAMTK_API std::string escapeControls(const std::string& text);

}  // namespace Tamtk
