#include "NetToolkit/Rfc2047Decode.h"

#include <iconv.h>

#include <cerrno>

#include "NetToolkit/Base64Decode.h"

namespace Tamnet {

namespace {

int _hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

bool _unquote(const std::string& text, std::string& out) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '_') {
            out += ' ';
        } else if (c != '=') {
            out += c;
        } else {
            const int high = i + 2 >= text.size() ? -1
                             : text[i + 1] == ' ' ? 0
                                                  : _hexDigit(text[i + 1]);
            const int low = high < 0 ? -1 : _hexDigit(text[i + 2]);
            if (low < 0) {
                return false;
            }
            out += static_cast<char>(high * 16 + low);
            i += 2;
        }
    }
    return true;
}

bool _isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool _blank(const std::string& text, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        if (!_isBlank(text[i])) {
            return false;
        }
    }
    return true;
}

// Appends `bytes` in `charset` as UTF-8; false, with `out` as it was, when
// iconv does not know the charset or the bytes are not text in it.
bool _toUtf8(const std::string& charset, const std::string& bytes, std::string& out) {
    iconv_t cd = iconv_open("UTF-8", charset.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        return false;
    }
    const std::size_t start = out.size();
    char buffer[1024];
    char* in = const_cast<char*>(bytes.data());
    std::size_t inLeft = bytes.size();
    bool ok = true;
    while (ok) {
        char* dst = buffer;
        std::size_t dstLeft = sizeof buffer;
        // Without input left, the call writes the shift back to the initial state.
        const bool last = inLeft == 0;
        const std::size_t rc = iconv(cd, last ? nullptr : &in, &inLeft, &dst, &dstLeft);
        out.append(buffer, dst);
        if (rc == static_cast<std::size_t>(-1)) {
            ok = errno == E2BIG;
        } else if (last) {
            break;
        }
    }
    iconv_close(cd);
    if (!ok) {
        out.resize(start);
    }
    return ok;
}

struct Word {
    std::string charset;  // upper case, without an RFC 2231 language
    std::string bytes;
    std::size_t end = 0;  // just past "?="
};

// Reads the encoded word that starts at `pos` ("=?" there).
bool _readWord(const std::string& text, std::size_t pos, Word& word) {
    const std::size_t charsetEnd = text.find('?', pos + 2);
    if (charsetEnd == std::string::npos || charsetEnd == pos + 2 || charsetEnd + 2 >= text.size() ||
        text[charsetEnd + 2] != '?') {
        return false;
    }
    const char encoding = text[charsetEnd + 1];
    const std::size_t payload = charsetEnd + 3;
    const std::size_t close = text.find("?=", payload);
    if (close == std::string::npos) {
        return false;
    }
    const std::string encoded = text.substr(payload, close - payload);
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        const bool paddedHex = i > 0 && encoded[i - 1] == '=' && encoded[i] == ' ';
        if (_isBlank(encoded[i]) && !((encoding == 'Q' || encoding == 'q') && paddedHex)) {
            return false;
        }
    }
    word.charset = text.substr(pos + 2, charsetEnd - pos - 2);
    word.charset.resize(word.charset.find('*') == std::string::npos ? word.charset.size()
                                                                    : word.charset.find('*'));
    for (char& c : word.charset) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    word.bytes.clear();
    word.end = close + 2;
    if (encoding == 'B' || encoding == 'b') {
        return unbase64(encoded.data(), encoded.size(), word.bytes);
    }
    return (encoding == 'Q' || encoding == 'q') && _unquote(encoded, word.bytes);
}

}  // namespace

std::string decodeRfc2047(const std::string& value) {
    std::string out;
    // The run of adjacent words of one charset, converted when it ends.
    std::string runCharset;
    std::string runBytes;
    std::string runText;  // the words as written, kept in case conversion fails
    std::string gap;      // the blanks before the run, when a run comes before it
    bool lastDecoded = false;
    const auto flush = [&]() {
        if (runText.empty()) {
            return;
        }
        std::string text;
        const bool decoded = _toUtf8(runCharset, runBytes, text);
        // Blanks vanish only between two words that are read.
        out += decoded && lastDecoded ? "" : gap;
        out += decoded ? text : runText;
        lastDecoded = decoded;
        runCharset.clear();
        runBytes.clear();
        runText.clear();
        gap.clear();
    };

    std::size_t pos = 0;
    std::size_t lastWordEnd = std::string::npos;
    for (std::size_t start; (start = value.find("=?", pos)) != std::string::npos;) {
        Word word;
        if (!_readWord(value, start, word)) {
            flush();
            out.append(value, pos, start + 2 - pos);
            pos = start + 2;
            lastWordEnd = std::string::npos;
            continue;
        }
        const bool adjacent = lastWordEnd == pos && _blank(value, pos, start);
        if (adjacent && word.charset == runCharset) {
            runText.append(value, pos, start - pos);
        } else {
            flush();
            (adjacent ? gap : out).append(value, pos, start - pos);
            runCharset = word.charset;
        }
        runBytes += word.bytes;
        runText.append(value, start, word.end - start);
        pos = word.end;
        lastWordEnd = word.end;
    }
    flush();
    out.append(value, pos, std::string::npos);
    return out;
}

}  // namespace Tamnet
