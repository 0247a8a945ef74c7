#include "MailCheck.h"

#include <cstring>
#include <map>
#include <vector>

#include "FuzzCheck.h"

namespace fuzzing {
namespace {

bool _isFieldNameChar(char c) {
    const unsigned char b = static_cast<unsigned char>(c);
    return b >= 33 && b <= 126 && c != ':';
}

bool _isBase64Char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/' || c == '=';
}

}  // namespace

const std::set<std::string>& standardHeaders() {
    static const std::set<std::string> names = {
        "To",           "From",           "Date", "Subject", "MIME-Version", "Content-Disposition",
        "Content-Type", "Content-Transfer-Encoding"};
    return names;
}

void checkMail(const std::string& mail, const std::set<std::string>& expectedHeaders) {
    check(std::strlen(mail.c_str()) == mail.size(), "mail holds a NUL byte", mail);
    check(mail.find('\r') == std::string::npos, "mail holds a carriage return", mail);
    check(!mail.empty() && mail.back() == '\n', "mail does not end with a line feed", mail);

    std::vector<std::string> lines;
    for (std::string::size_type at = 0; at < mail.size();) {
        const std::string::size_type end = mail.find('\n', at);
        lines.push_back(mail.substr(at, end - at));
        at = end + 1;
    }

    std::map<std::string, int> seen;
    std::size_t i = 0;
    for (; i < lines.size() && !lines[i].empty(); ++i) {
        const std::string& line = lines[i];
        if (line[0] == '\t' || line[0] == ' ') {
            check(i > 0, "header block starts with a continuation line", mail);
            continue;
        }
        const std::string::size_type colon = line.find(':');
        check(colon != std::string::npos && colon > 0, "header line without a name", line);
        for (std::string::size_type k = 0; k < colon; ++k) {
            check(_isFieldNameChar(line[k]), "header name with a bad byte", line);
        }
        check(line.compare(colon, 2, ": ") == 0, "header name not followed by \": \"", line);
        ++seen[line.substr(0, colon)];
    }
    check(i < lines.size(), "mail without the empty line that ends its header", mail);

    std::set<std::string> names;
    for (const auto& entry : seen) {
        check(entry.second == 1, "header \"" + entry.first + "\" appears more than once", mail);
        names.insert(entry.first);
    }
    if (names != expectedHeaders) {
        std::string got, want;
        for (const auto& n : names) got += n + "|";
        for (const auto& n : expectedHeaders) want += n + "|";
        fail("header names differ: got " + got + " expected " + want, mail);
    }

    // The body: the lines after the empty one.
    ++i;
    check(i < lines.size(), "mail without a body line", mail);
    for (; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const bool last = i + 1 == lines.size();
        if (!last) {
            check(line.size() == 76, "body line that is not 76 characters long", mail);
        } else {
            check(line.size() <= 76 && line.size() % 4 == 0, "bad last body line", mail);
        }
        for (char c : line) {
            check(_isBase64Char(c), "body line with a byte outside Base64", line);
        }
        const std::string::size_type pad = line.find('=');
        check(pad == std::string::npos || (last && pad + 2 >= line.size() &&
                                           line.find_first_not_of('=', pad) == std::string::npos),
              "Base64 padding inside the body", line);
    }
}

}  // namespace fuzzing
