#include "Programs/osk-spool/EncodedWords.h"

#include <iconv.h>

#include <cctype>
#include <cerrno>
#include <cstring>

namespace Osk {

namespace {

int _hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}

int _base64Digit(char c) {
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

bool _decodeBase64(const std::string& text, std::string& out) {
    unsigned bits = 0;
    int count = 0;
    std::size_t end = text.size();
    while (end > 0 && text[end - 1] == '=') {
        --end;
    }
    for (std::size_t i = 0; i < end; ++i) {
        const int d = _base64Digit(text[i]);
        if (d < 0) {
            return false;
        }
        bits = (bits << 6) | static_cast<unsigned>(d);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return count < 6;  // a single digit left over cannot be a byte
}

// Besides "=XX" this reads "= X", the blank-filled form the channel has
// always written for bytes below 0x10.
bool _decodeQ(const std::string& text, std::string& out) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '_') {
            out += ' ';
        } else if (c == '=') {
            if (i + 2 >= text.size()) {
                return false;
            }
            const int high = text[i + 1] == ' ' ? 0 : _hexDigit(text[i + 1]);
            const int low = _hexDigit(text[i + 2]);
            if (high < 0 || low < 0) {
                return false;
            }
            out += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            out += c;
        }
    }
    return true;
}

bool _toUtf8(const std::string& charset, const std::string& bytes, std::string& out) {
    iconv_t cd = iconv_open("UTF-8", charset.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return false;
    }
    std::string converted;
    char buffer[1024];
    char* in = const_cast<char*>(bytes.data());
    std::size_t inLeft = bytes.size();
    bool ok = true;
    for (;;) {
        char* dst = buffer;
        std::size_t dstLeft = sizeof buffer;
        const std::size_t rc = iconv(cd, inLeft ? &in : nullptr, &inLeft, &dst, &dstLeft);
        converted.append(buffer, dst);
        if (rc != static_cast<std::size_t>(-1)) {
            if (inLeft == 0) {
                // The shift sequence back to the initial state, if any.
                dst = buffer;
                dstLeft = sizeof buffer;
                iconv(cd, nullptr, nullptr, &dst, &dstLeft);
                converted.append(buffer, dst);
                break;
            }
            continue;
        }
        if (errno != E2BIG) {
            ok = false;
            break;
        }
    }
    iconv_close(cd);
    if (ok) {
        out += converted;
    }
    return ok;
}

struct Word {
    std::string charset;  // upper case, without an RFC 2231 language
    std::string bytes;
    std::size_t end = 0;  // just past "?="
};

// Reads the encoded word starting at `pos` ("=?" there).
bool _readWord(const std::string& text, std::size_t pos, Word& word) {
    const std::size_t charsetEnd = text.find('?', pos + 2);
    if (charsetEnd == std::string::npos || charsetEnd == pos + 2 || charsetEnd + 2 >= text.size() ||
        text[charsetEnd + 2] != '?') {
        return false;
    }
    const char encoding = static_cast<char>(std::toupper(text[charsetEnd + 1]));
    const std::size_t payload = charsetEnd + 3;
    const std::size_t close = text.find("?=", payload);
    if (close == std::string::npos) {
        return false;
    }
    const std::string encoded = text.substr(payload, close - payload);
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (std::isspace(static_cast<unsigned char>(encoded[i])) &&
            !(encoding == 'Q' && i > 0 && encoded[i - 1] == '=' && encoded[i] == ' ')) {
            return false;
        }
    }
    word.charset = text.substr(pos + 2, charsetEnd - pos - 2);
    word.charset = word.charset.substr(0, word.charset.find('*'));
    for (char& c : word.charset) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    word.bytes.clear();
    word.end = close + 2;
    if (encoding == 'B') {
        return _decodeBase64(encoded, word.bytes);
    }
    return encoding == 'Q' && _decodeQ(encoded, word.bytes);
}

bool _blank(const std::string& text, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        if (text[i] != ' ' && text[i] != '\t') {
            return false;
        }
    }
    return true;
}

}  // namespace

std::string decodeEncodedWords(const std::string& value) {
    std::string out;
    // Adjacent words of one charset are converted together: a character may
    // be split between them.
    std::string runCharset;
    std::string runBytes;
    std::string runText;  // the words as written, kept in case conversion fails
    auto flush = [&]() {
        if (!runText.empty() && !_toUtf8(runCharset, runBytes, out)) {
            out += runText;
        }
        runCharset.clear();
        runBytes.clear();
        runText.clear();
    };

    std::size_t pos = 0;
    std::size_t lastWordEnd = std::string::npos;
    while (pos < value.size()) {
        const std::size_t start = value.find("=?", pos);
        Word word;
        if (start == std::string::npos) {
            break;
        }
        if (!_readWord(value, start, word)) {
            flush();
            out.append(value, pos, start + 2 - pos);
            pos = start + 2;
            lastWordEnd = std::string::npos;
            continue;
        }
        const bool adjacent = lastWordEnd == pos && _blank(value, pos, start);
        if (!adjacent || word.charset != runCharset) {
            flush();
            if (!adjacent) {
                out.append(value, pos, start - pos);
            }
        }
        const std::size_t written = runText.empty() ? start : pos;
        runCharset = word.charset;
        runBytes += word.bytes;
        runText += value.substr(written, word.end - written);
        pos = word.end;
        lastWordEnd = word.end;
    }
    flush();
    out.append(value, pos, std::string::npos);
    return out;
}

namespace {

std::string _cleanUtf8(const std::string& text, bool printable) {
    static const char replacement[] = "\xEF\xBF\xBD";
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            out += printable && (c < 0x20 || c == 0x7F) ? ' ' : static_cast<char>(c);
            ++i;
            continue;
        }
        // The length a lead byte announces, and the smallest value that
        // length may carry (longer forms than needed are not UTF-8).
        std::size_t length = 0;
        unsigned long value = 0;
        unsigned long least = 0;
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2, value = c & 0x1F, least = 0x80;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3, value = c & 0x0F, least = 0x800;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4, value = c & 0x07, least = 0x10000;
        }
        std::size_t n = 1;
        while (length && n < length && i + n < text.size() &&
               (static_cast<unsigned char>(text[i + n]) & 0xC0) == 0x80) {
            value = (value << 6) | (static_cast<unsigned char>(text[i + n]) & 0x3F);
            ++n;
        }
        const bool valid = length && n == length && value >= least && value <= 0x10FFFF &&
                           !(value >= 0xD800 && value <= 0xDFFF);
        // C1 controls move a terminal's cursor as surely as C0 ones.
        if (valid && !(printable && value >= 0x80 && value < 0xA0)) {
            out.append(text, i, n);
        } else {
            out += valid ? " " : replacement;
        }
        i += n;
    }
    return out;
}

}  // namespace

std::string printableUtf8(const std::string& text) {
    return _cleanUtf8(text, true);
}

std::string validUtf8(const std::string& text) {
    return _cleanUtf8(text, false);
}

}  // namespace Osk
