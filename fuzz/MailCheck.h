#pragma once

#include <set>
#include <string>

namespace fuzzing {

// The headers every built mail carries besides its extra headers.
const std::set<std::string>& standardHeaders();

// Checks the shape of a built mail, aborting on the first fault:
//  - no NUL, no CR (the agent gets a C string with line feeds only);
//  - the header block ends at the first empty line; each of its lines is
//    either "Name: value" with a field name of printable ASCII without ":",
//    or a continuation that starts with a tab or a blank;
//  - the header names are exactly `expectedHeaders`, each once (so no value
//    injected a header of its own);
//  - the body is Base64 in lines of exactly 76 characters but the last,
//    which holds 0 to 76 and is padded to a multiple of 4;
//  - every line, the last included, ends with a line feed.
void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders);

}  // namespace fuzzing
