#pragma once

#include <set>
#include <string>

#include "mail_shape.h"  // tests/support

namespace fuzzing {

using testing_support::standardHeaders;

// Aborts, showing the mail, when it does not have the shape readMail
// states (tests/support/mail_shape.h), `expectedHeaders` among it.
void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders);

}  // namespace fuzzing
