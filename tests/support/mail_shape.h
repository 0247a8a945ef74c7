#pragma once

// Reads a mail built by the channel back, the way a strict receiver would,
// and lists every way in which its shape is wrong. Shared by the hostile
// input tests and the fuzz targets.

#include <map>
#include <set>
#include <string>
#include <vector>

namespace testing_support {

struct MailShape {
    // Empty when the mail has the expected shape:
    //  - no NUL, no CR (the agent gets a C string with line feeds only);
    //  - the header block ends at the first empty line; each of its lines is
    //    "Name: value" with a field name of printable ASCII without ":", or
    //    a continuation that starts with a tab or a blank;
    //  - the header names are exactly the expected ones, each once (so no
    //    value added a header of its own);
    //  - the body is Base64 in lines of exactly 76 characters but the last,
    //    which holds 0 to 76, padded to a multiple of 4;
    //  - every line, the last included, ends with a line feed.
    std::vector<std::string> problems;
    // Header name to its value, continuation lines joined with their line
    // feed and fold character dropped.
    std::map<std::string, std::string> headers;
    // The body's bytes, decoded from Base64.
    std::string body;
};

// Printable ASCII without ":", at least one character.
bool isFieldName(const std::string& name);

// The headers every mail carries besides its extra headers.
const std::set<std::string>& standardHeaders();

MailShape readMail(const std::string& mail, const std::set<std::string>& expectedHeaders);

// The bytes of a header value made of RFC 2047 "B" encoded words (the
// charset is not converted), the words joined as a decoder joins them.
std::string decodeWords(const std::string& value);

std::string decodeBase64(const std::string& text);

}  // namespace testing_support
