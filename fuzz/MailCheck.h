#pragma once

#include <set>
#include <string>

#include "Channels/email/mail_shape.h"  // from tests/

namespace fuzzing {

using testing_support::standardHeaders;

// Aborts, showing the mail, when it does not have the shape readMail
// states (tests/Channels/email/mail_shape.h), `expectedHeaders` among it.
void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders);

}  // namespace fuzzing
