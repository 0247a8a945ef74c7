#include "Agents/digest/Digest.h"

#include <iconv.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "Agents/common/AgentException.h"
#include "NetToolkit/Base64.h"
#include "NetToolkit/Rfc2047.h"
#include "NetToolkit/Rfc2822Date.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/digest";
const std::size_t _lineBytes = 57;  // of text, for 76 Base64 characters

// The header block: up to and with the line feed before the empty line.
std::string _headers(const std::string& mail) {
    const std::string::size_type end = mail.find("\n\n");
    return end == std::string::npos ? mail : mail.substr(0, end + 1);
}

// The lines of the first field `name`, folding kept, each with its line feed.
std::string _field(const std::string& mail, const char* name) {
    const std::string block = _headers(mail);
    const std::size_t n = std::strlen(name);
    for (std::size_t pos = 0; pos < block.size();) {
        std::size_t eol = block.find('\n', pos);
        eol = eol == std::string::npos ? block.size() : eol;
        if (eol - pos > n && block[pos + n] == ':' &&
            strncasecmp(block.data() + pos, name, n) == 0) {
            std::size_t end = eol;
            while (end + 1 < block.size() && (block[end + 1] == ' ' || block[end + 1] == '\t')) {
                end = block.find('\n', end + 1);
                end = end == std::string::npos ? block.size() : end;
            }
            return block.substr(pos, end - pos) + '\n';
        }
        pos = eol + 1;
    }
    return std::string();
}

int _digit(char c) {
    static const char* const digits = Tamnet::internal::rfc2045::Base64Table;
    const char* at = std::strchr(digits, c);
    return c != '\0' && at != nullptr && at - digits < 64 ? static_cast<int>(at - digits) : -1;
}

std::string _unbase64(const std::string& text) {
    std::string out;
    int bits = 0;
    unsigned value = 0;
    for (const char c : text) {
        const int d = _digit(c);
        if (d < 0) {
            continue;
        }
        value = ((value << 6) | static_cast<unsigned>(d)) & 0xFFFu;
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((value >> bits) & 0xFFu);
        }
    }
    return out;
}

std::string _unquote(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '_') {
            out += ' ';
        } else if (text[i] == '=' && i + 2 < text.size() &&
                   (text[i + 1] == ' ' || std::isxdigit(static_cast<unsigned char>(text[i + 1]))) &&
                   std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            // The toolkit writes a blank for a leading zero digit ("= 9").
            const char digits[] = {text[i + 1] == ' ' ? '0' : text[i + 1], text[i + 2], '\0'};
            out += static_cast<char>(std::strtol(digits, nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string _toUtf8(const std::string& charset, const std::string& bytes) {
    if (strcasecmp(charset.c_str(), "UTF-8") == 0 || strcasecmp(charset.c_str(), "US-ASCII") == 0) {
        return bytes;  // passed on as it is: the summary is read by people
    }
    iconv_t cd = iconv_open("UTF-8", charset.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return "\xEF\xBF\xBD";  // a charset this system does not know
    }
    std::string out;
    char* in = const_cast<char*>(bytes.data());
    std::size_t left = bytes.size();
    char buffer[256];
    while (left > 0) {
        char* to = buffer;
        std::size_t room = sizeof buffer;
        const std::size_t rc = iconv(cd, &in, &left, &to, &room);
        out.append(buffer, static_cast<std::size_t>(to - buffer));
        if (rc == static_cast<std::size_t>(-1) && errno != E2BIG) {
            out += "\xEF\xBF\xBD";  // EILSEQ, or EINVAL at a cut character
            ++in;
            --left;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
        }
    }
    iconv_close(cd);
    return out;
}

// "=?UTF-8?B?...?=", folded into words of at most 57 bytes of text as the
// channel writes its headers; the cut is at character boundaries.
std::string _encodedUtf8(const std::string& text) {
    std::string out;
    std::size_t pos = 0;
    do {
        std::size_t end = std::min(text.size(), pos + _lineBytes);
        while (end < text.size() && end > pos + 1 &&
               (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
            --end;
        }
        if (pos > 0) {
            out += "\n\t";
        }
        out += Tamnet::encodeRfc2047("UTF-8", text.data() + pos, static_cast<unsigned>(end - pos),
                                     Tamnet::B);
        pos = end;
    } while (pos < text.size());
    return out;
}

void _appendBase64Lines(std::string& out, const std::string& bytes) {
    for (std::size_t pos = 0; pos < bytes.size(); pos += _lineBytes) {
        const char* begin = bytes.data() + pos;
        Tamnet::base64(begin, begin + std::min(_lineBytes, bytes.size() - pos),
                       std::back_inserter(out));
        out += '\n';
    }
}

// Alerts, their time span, one line per alert: its date and subject.
std::string _summary(const std::vector<std::string>& mails) {
    const std::string first = headerValue(mails.front(), "Date");
    const std::string last = headerValue(mails.back(), "Date");
    std::string text =
        std::to_string(mails.size()) + " alerts, from " + first + " to " + last + ".\n\n";
    for (const std::string& mail : mails) {
        std::string subject = decodeWords(headerValue(mail, "Subject"));
        for (char& c : subject) {
            if (c == '\r' || c == '\n') {
                c = ' ';  // one line per alert
            }
        }
        text += headerValue(mail, "Date") + "  " + subject + '\n';
    }
    return text;
}

}  // namespace

std::string headerValue(const std::string& mail, const char* name) {
    const std::string field = _field(mail, name);
    if (field.empty()) {
        return field;
    }
    std::string value;
    std::size_t pos = std::strlen(name) + 1;
    while (pos < field.size() && (field[pos] == ' ' || field[pos] == '\t')) {
        ++pos;
    }
    for (; pos < field.size(); ++pos) {
        if (field[pos] != '\n') {
            value += field[pos];
        }
    }
    return value;
}

std::string decodeWords(const std::string& value) {
    std::string out;
    std::string pendingCharset;  // adjacent words of one charset are joined before conversion
    std::string pendingBytes;
    std::string gap;  // blanks after a word: dropped when another word follows
    const auto settle = [&]() {
        if (!pendingCharset.empty()) {
            out += _toUtf8(pendingCharset, pendingBytes);
            pendingCharset.clear();
            pendingBytes.clear();
        }
    };
    std::size_t pos = 0;
    while (pos < value.size()) {
        const std::size_t start = value.find("=?", pos);
        std::size_t q1 = start == std::string::npos ? start : value.find('?', start + 2);
        std::size_t q2 = q1 == std::string::npos ? q1 : value.find('?', q1 + 1);
        std::size_t close = q2 == std::string::npos ? q2 : value.find("?=", q2 + 1);
        if (close == std::string::npos || q2 != q1 + 2) {
            settle();
            out += gap + value.substr(pos);
            gap.clear();
            break;
        }
        const std::string between = value.substr(pos, start - pos);
        if (between.find_first_not_of(" \t\r\n") != std::string::npos || pendingCharset.empty()) {
            settle();
            out += gap + between;
        }
        gap.clear();
        std::string charset = value.substr(start + 2, q1 - start - 2);
        charset = charset.substr(0, charset.find('*'));  // RFC 2231 language suffix
        const char kind =
            static_cast<char>(std::toupper(static_cast<unsigned char>(value[q1 + 1])));
        const std::string payload = value.substr(q2 + 1, close - q2 - 1);
        if (strcasecmp(charset.c_str(), pendingCharset.c_str()) != 0) {
            settle();
            pendingCharset = charset;
        }
        pendingBytes += kind == 'B' ? _unbase64(payload) : _unquote(payload);
        pos = close + 2;
        const std::size_t next = value.find_first_not_of(" \t\r\n", pos);
        gap = value.substr(pos, (next == std::string::npos ? value.size() : next) - pos);
        pos += gap.size();
    }
    settle();
    return out + gap;
}

std::string buildDigest(const std::vector<std::string>& mails, long time,
                        const std::string& messageId) {
    TAMTK_ASSERT(!mails.empty(), _source);
    // A boundary that no line of any part begins with. Mail built by the
    // channel never holds "=_" at a line start; the check makes it certain.
    std::string boundary = "=_digest_" + messageId.substr(1, messageId.find('@') - 1);
    for (int attempt = 0;; ++attempt) {
        bool clash = false;
        for (const std::string& mail : mails) {
            clash = clash || mail.compare(0, boundary.size() + 2, "--" + boundary) == 0 ||
                    mail.find("\n--" + boundary) != std::string::npos;
        }
        if (!clash) {
            break;
        }
        boundary += "_" + std::to_string(attempt);
    }

    const std::string count = std::to_string(mails.size());
    std::string out;
    std::size_t size = 4096;
    for (const std::string& mail : mails) {
        size += mail.size() + boundary.size() + 64;
    }
    out.reserve(size);
    out += _field(mails.front(), "To");
    out += _field(mails.front(), "From");
    out += "Date: " + Tamnet::rfc2822Date(time) + '\n';
    out += "Subject: " + _encodedUtf8("Digest of " + count + " alerts") + '\n';
    out += "Message-ID: " + messageId + '\n';
    out += "Auto-Submitted: auto-generated\n";
    out += "MIME-Version: 1.0\n";
    out += "Content-Type: multipart/digest; boundary=\"" + boundary + "\"\n\n";
    out += "A digest of " + count + " alerts in MIME format.\n";

    out += "\n--" + boundary + '\n';
    out +=
        "Content-Type: text/plain; charset=\"UTF-8\"\n"
        "Content-Disposition: inline\n"
        "Content-Transfer-Encoding: base64\n\n";
    _appendBase64Lines(out, _summary(mails));
    for (const std::string& mail : mails) {
        // The line feed before a delimiter belongs to the delimiter: the
        // part's content is the mail as it is, its own last line feed too.
        out += "\n--" + boundary + '\n';
        out += "Content-Type: message/rfc822\n\n";
        out += mail;
    }
    out += "\n--" + boundary + "--\n";
    return out;
}

}  // namespace EmailAgents
}  // namespace Osk
