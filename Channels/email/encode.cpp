#include "Channels/email/encode.h"

#include <cstring>
#include <ostream>
#include <stdexcept>

#include "Channels/email/make_charset.h"
#include "Channels/email/string_sink.h"
#include "NetToolkit/Base64.h"
#include "NetToolkit/Rfc2047.h"
#include "NetToolkit/Rfc2822Date.h"

namespace Osk {
namespace EmailChannel {

const unsigned int limitFromName = 200;
const unsigned int limitSubject = 400;
const char* const boundary = "---- =_EmailAlerter.Boundary";

namespace {

// 57 bytes of converted text make 76 Base64 characters: one line.
const std::size_t _lineLength = 76;

// Appends Base64 lines of 76 characters (the last one shorter; one empty
// line for no data): the Base64 is written in one piece, then spread into
// its lines in place, from the last line back, so that each line moves once
// and never onto text that has not moved yet.
void _appendBase64Lines(std::string& text, const char* data, std::size_t length) {
    const std::size_t encoded = Tamnet::base64Length(length);
    const std::size_t lines = encoded == 0 ? 1 : (encoded + _lineLength - 1) / _lineLength;
    const std::size_t start = text.size();
    text.resize(start + encoded + lines);
    char* const first = &text[start];
    Tamnet::base64(data, data + length, first);
    char* to = first + encoded + lines;
    std::size_t size = encoded - (lines - 1) * _lineLength;
    for (std::size_t line = lines; line-- > 0; size = _lineLength) {
        *--to = '\n';
        to -= size;
        std::memmove(to, first + line * _lineLength, size);
    }
}

std::ostream& _write(std::ostream& out, const std::string& lines) {
    return out.write(lines.data(), static_cast<std::streamsize>(lines.size()));
}

// A header value as lines of one encoded word each, folded with a tab.
std::ostream& encodeHeaderLine(std::ostream& out, const char* charset, const Tamtk::Utf8Array& text,
                               unsigned int limit) {
    const CharsetString converted = make_charset(charset, text, limit);
    std::string lines;
    Tamnet::appendFoldedRfc2047(lines, charset, converted.bytes.get(), converted.length, Tamnet::B);
    return _write(out, lines);
}

std::ostream& encodeSubjectLine(std::ostream& out, const char* charset,
                                const Tamtk::Utf8Array& text, unsigned int limit) {
    return encodeHeaderLine(out, charset, text, limit);
}

std::ostream& encodeExtraHeaders(std::ostream& out, const char* charset,
                                 const std::map<std::string, std::string>& headers,
                                 unsigned int limit) {
    for (const auto& header : headers) {
        out << header.first << ": ";
        const Tamtk::Utf8Array value(header.second.data(),
                                     static_cast<unsigned>(header.second.size()));
        encodeHeaderLine(out, charset, value, limit);
    }
    return out;
}

std::ostream& encodeBody(std::ostream& out, const char* charset, const Tamtk::Utf8Array& body) {
    const CharsetString converted = make_charset(charset, body, noLimit);
    std::string lines;
    _appendBase64Lines(lines, converted.bytes.get(), converted.length);
    return _write(out, lines);
}

}  // namespace

std::string buildEmail(const char* charset, long time, const Tamtk::Utf8Array& fromName,
                       const Tamnet::EmailAddr& from, const std::vector<Tamnet::EmailAddr>& to,
                       const Tamtk::Utf8Array& subject, const Tamtk::Utf8Array& body,
                       std::map<std::string, std::string> extraHeaders, const std::string& thread) {
    if (to.empty()) {
        throw std::out_of_range("vector");
    }
    // Built in place in the string that is returned. Room is made up front
    // for the usual header lines and the Base64 body (4 characters for 3
    // bytes, a line feed per 76), so the text rarely has to move.
    std::string text;
    std::size_t headerText = fromName.length() + subject.length();
    for (const auto& header : extraHeaders) {
        headerText += header.first.size() + header.second.size();
    }
    text.reserve(1024 + 2 * headerText + static_cast<std::size_t>(body.length()) * 77 / 57 + 77);
    internal::string_sink sink(text);
    std::ostream out(&sink);
    out.exceptions(std::ios::badbit);  // a mail cut short must not go out
    out << "To: " << to[0].asRFC821String(false);
    for (std::size_t i = 1; i < to.size(); ++i) {
        out << ",\n\t" << to[i].asRFC821String(false);
    }
    out << '\n';
    out << "From: ";
    encodeHeaderLine(out, charset, fromName, limitFromName);
    out << ' ' << from.asRFC821String(false) << '\n';
    out << "Date: " << Tamnet::rfc2822Date(time) << '\n';
    out << "Subject: ";
    encodeSubjectLine(out, charset, subject, limitSubject);
    encodeExtraHeaders(out, charset, extraHeaders, limitFromName);
    if (!thread.empty()) {
        // Not encoded words: readers match these values as written.
        out << "References: " << thread << "\nIn-Reply-To: " << thread << '\n';
    }
    out << "MIME-Version: 1.0\n"
        << "Content-Disposition: inline\n"
        << "Content-Type: text/plain; charset=\"" << charset << "\"\n"
        << "Content-Transfer-Encoding: base64\n"
        << '\n';
    encodeBody(out, charset, body);
    return text;
}

}  // namespace EmailChannel
}  // namespace Osk
