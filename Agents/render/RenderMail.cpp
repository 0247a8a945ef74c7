#include "Agents/render/RenderMail.h"

#include <iconv.h>
#include <strings.h>

#include <cerrno>

#include "NetToolkit/Base64Decode.h"
#include "NetToolkit/HeaderBlock.h"
#include "NetToolkit/Rfc2047Decode.h"

namespace Osk {
namespace EmailAgents {

namespace {

// The charset parameter of a Content-Type value; UTF-8 when it names none.
std::string _charset(const Tamnet::HeaderBlock& headers) {
    const Tamnet::HeaderField* type = headers.find("Content-Type");
    if (type == nullptr) {
        return "UTF-8";
    }
    const std::string& value = type->value;
    for (std::string::size_type at = value.find(';'); at != std::string::npos;
         at = value.find(';', at + 1)) {
        std::string::size_type name = value.find_first_not_of(" \t", at + 1);
        if (name == std::string::npos || strncasecmp(value.c_str() + name, "charset=", 8) != 0) {
            continue;
        }
        std::string charset = value.substr(name + 8, value.find(';', name) - name - 8);
        if (charset.size() >= 2 && charset.front() == '"' && charset.back() == '"') {
            charset = charset.substr(1, charset.size() - 2);
        }
        return charset;
    }
    return "UTF-8";
}

// `bytes` in `charset` as UTF-8; false when iconv does not know the charset
// or the bytes are not text in it.
bool _toUtf8(const std::string& charset, const std::string& bytes, std::string& out) {
    iconv_t cd = iconv_open("UTF-8", charset.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return false;
    }
    std::string converted(bytes.size() * 4 + 16, '\0');
    char* in = const_cast<char*>(bytes.data());
    std::size_t inLeft = bytes.size();
    char* to = &converted[0];
    std::size_t toLeft = converted.size();
    const bool done = iconv(cd, &in, &inLeft, &to, &toLeft) != static_cast<std::size_t>(-1) &&
                      iconv(cd, nullptr, nullptr, &to, &toLeft) != static_cast<std::size_t>(-1);
    iconv_close(cd);
    if (!done) {
        return false;
    }
    converted.resize(converted.size() - toLeft);
    out = converted;
    return true;
}

std::string _body(const Tamnet::HeaderBlock& headers, const std::string& sent) {
    const Tamnet::HeaderField* encoding = headers.find("Content-Transfer-Encoding");
    std::string bytes = sent;
    if (encoding != nullptr && strcasecmp(encoding->value.c_str(), "base64") == 0) {
        std::string digits;
        for (char c : sent) {
            if (c != '\n' && c != '\r') {
                digits += c;
            }
        }
        bytes.clear();
        if (!Tamnet::unbase64(digits.data(), digits.size(), bytes)) {
            return "(the body is not Base64; shown as sent)\n" + sent;
        }
    }
    const std::string charset = _charset(headers);
    std::string text;
    if (!_toUtf8(charset, bytes, text)) {
        return "(the body is not " + charset + " text; shown as sent)\n" + sent;
    }
    return text;
}

}  // namespace

std::string renderMail(const std::string& message) {
    const Tamnet::HeaderBlock headers(message);
    std::string out;
    for (const Tamnet::HeaderField& field : headers.fields()) {
        out += field.name + ": " + Tamnet::decodeRfc2047(field.value) + "\n";
    }
    const std::string::size_type blank = message.find("\n\n");
    const std::string::size_type blankCrlf = message.find("\r\n\r\n");
    std::string body;
    if (blank != std::string::npos && (blankCrlf == std::string::npos || blank < blankCrlf)) {
        body = message.substr(blank + 2);
    } else if (blankCrlf != std::string::npos) {
        body = message.substr(blankCrlf + 4);
    }
    out += "\n" + _body(headers, body);
    if (out.back() != '\n') {
        out += '\n';
    }
    return out;
}

}  // namespace EmailAgents
}  // namespace Osk
