#include "mail_shape.h"

#include <cstring>
#include <sstream>

namespace testing_support {
namespace {

int _base64Value(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

std::vector<std::string> _lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

bool isFieldName(const std::string& name) {
    for (char c : name) {
        const unsigned char b = static_cast<unsigned char>(c);
        if (b < 33 || b > 126 || c == ':')
            return false;
    }
    return !name.empty();
}

const std::set<std::string>& standardHeaders() {
    static const std::set<std::string> names = {"To",           "From",
                                                "Date",         "Subject",
                                                "MIME-Version", "Content-Disposition",
                                                "Content-Type", "Content-Transfer-Encoding"};
    return names;
}

std::string decodeBase64(const std::string& text) {
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (char c : text) {
        const int v = _base64Value(c);
        if (v < 0)
            continue;  // padding
        bits = (bits << 6) | static_cast<unsigned>(v);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return out;
}

std::string decodeWords(const std::string& value) {
    std::string out;
    for (std::string::size_type at = value.find("=?"); at != std::string::npos;
         at = value.find("=?", at)) {
        const std::string::size_type b = value.find("?B?", at + 2);
        const std::string::size_type end = b == std::string::npos ? b : value.find("?=", b + 3);
        if (end == std::string::npos)
            break;
        out += decodeBase64(value.substr(b + 3, end - b - 3));
        at = end + 2;
    }
    return out;
}

MailShape readMail(const std::string& mail, const std::set<std::string>& expectedHeaders) {
    MailShape shape;
    auto problem = [&shape](const std::string& what) { shape.problems.push_back(what); };
    if (std::strlen(mail.c_str()) != mail.size())
        problem("mail holds a NUL byte");
    if (mail.find('\r') != std::string::npos)
        problem("mail holds a carriage return");
    if (mail.empty() || mail.back() != '\n')
        problem("mail does not end with a line feed");

    const std::vector<std::string> lines = _lines(mail);
    std::map<std::string, int> seen;
    std::string current;
    std::size_t i = 0;
    for (; i < lines.size() && !lines[i].empty(); ++i) {
        const std::string& line = lines[i];
        if (line[0] == '\t' || line[0] == ' ') {
            if (current.empty()) {
                problem("header block starts with a continuation line");
            } else {
                shape.headers[current] += line.substr(1);
            }
            continue;
        }
        const std::string::size_type colon = line.find(':');
        if (colon == std::string::npos || colon == 0) {
            problem("header line without a name: " + line);
            current.clear();
            continue;
        }
        current = line.substr(0, colon);
        if (!isFieldName(current))
            problem("header name with a bad byte: " + line);
        if (line.compare(colon, 2, ": ") != 0)
            problem("header name not followed by \": \": " + line);
        if (++seen[current] > 1)
            problem("header \"" + current + "\" appears more than once");
        shape.headers[current] += line.size() > colon + 2 ? line.substr(colon + 2) : std::string();
    }
    if (i == lines.size()) {
        problem("mail without the empty line that ends its header");
        return shape;
    }

    std::set<std::string> names;
    for (const auto& entry : seen) names.insert(entry.first);
    if (names != expectedHeaders) {
        std::string got, want;
        for (const auto& n : names) got += n + "|";
        for (const auto& n : expectedHeaders) want += n + "|";
        problem("header names are " + got + " instead of " + want);
    }

    ++i;
    if (i == lines.size())
        problem("mail without a body line");
    std::string encoded;
    for (; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        const bool last = i + 1 == lines.size();
        if (!last && line.size() != 76)
            problem("body line that is not 76 characters long");
        if (last && (line.size() > 76 || line.size() % 4 != 0))
            problem("bad last body line");
        for (std::string::size_type k = 0; k < line.size(); ++k) {
            const bool padding = line[k] == '=' && last && k + 2 >= line.size() &&
                                 line.find_first_not_of('=', k) == std::string::npos;
            if (_base64Value(line[k]) < 0 && !padding) {
                problem("body line with a byte outside Base64: " + line);
                break;
            }
        }
        encoded += line;
    }
    shape.body = decodeBase64(encoded);
    return shape;
}

}  // namespace testing_support
