#include "MailCheck.h"

#include "FuzzCheck.h"

namespace fuzzing {

void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders) {
    const testing_support::MailShape shape = testing_support::readMail(mail, expectedHeaders);
    if (!shape.problems.empty()) fail(shape.problems.front(), mail);
}

}  // namespace fuzzing
