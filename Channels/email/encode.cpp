#include "Channels/email/encode.h"

#include <iterator>
#include <ostream>
#include <sstream>
#include <stdexcept>

#include "Channels/email/make_charset.h"
#include "NetToolkit/Base64.h"
#include "NetToolkit/Rfc2047.h"
#include "NetToolkit/Rfc2822Date.h"

namespace Osk {
namespace EmailChannel {

const unsigned int limitFromName = 200;
const unsigned int limitSubject = 400;
const char* const boundary = "---- =_EmailAlerter.Boundary";

namespace {

enum _WrapMode { WrapBody = 0, WrapHeader = 1 };

// 57 bytes of converted text make 76 Base64 characters: one line.
const int _pieceLength = 57;

// Writes `data` as lines of one encoded word each (or plain Base64 when
// `charset` is null). The cut is by bytes, so a multi-byte character may be
// split across two words; decoders join adjacent words before decoding.
std::ostream& wrap(std::ostream& out, const char* charset, const char* data, int length,
                   _WrapMode mode, Tamnet::Rfc2047Encoding encoding) {
    const char* const end = data + length;
    const char* piece = data;
    bool first = true;
    do {
        const char* pieceEnd = (end - piece > _pieceLength) ? piece + _pieceLength : end;
        if (!first && mode == WrapHeader) {
            out << '\t';
        }
        if (charset == nullptr) {
            Tamnet::base64(piece, pieceEnd, std::ostreambuf_iterator<char>(out));
        } else {
            Tamnet::encodeRfc2047(out, charset, piece, static_cast<unsigned>(pieceEnd - piece),
                                  encoding);
        }
        out << '\n';
        first = false;
        piece = pieceEnd;
    } while (piece < end);
    return out;
}

std::ostream& encodeHeaderLine(std::ostream& out, const char* charset, const Tamtk::Utf8Array& text,
                               unsigned int limit) {
    const CharsetString converted = make_charset(charset, text, limit);
    return wrap(out, charset, converted.bytes.get(), static_cast<int>(converted.length), WrapHeader,
                Tamnet::B);
}

std::ostream& encodeSubjectLine(std::ostream& out, const char* charset, const Tamtk::Utf8Array& text,
                                unsigned int limit) {
    return encodeHeaderLine(out, charset, text, limit);
}

std::ostream& encodeExtraHeaders(std::ostream& out, const char* charset,
                                 std::map<std::string, std::string> headers, unsigned int limit) {
    for (const auto& header : headers) {
        out << header.first << ": ";
        const Tamtk::Utf8Array value(header.second.data(), static_cast<unsigned>(header.second.size()));
        encodeHeaderLine(out, charset, value, limit);
    }
    return out;
}

std::ostream& encodeBody(std::ostream& out, const char* charset, const Tamtk::Utf8Array& body) {
    const CharsetString converted = make_charset(charset, body, noLimit);
    return wrap(out, nullptr, converted.bytes.get(), static_cast<int>(converted.length), WrapBody,
                Tamnet::B);
}

}  // namespace

std::string buildEmail(const char* charset, long time, const Tamtk::Utf8Array& fromName,
                       const Tamnet::EmailAddr& from, const std::vector<Tamnet::EmailAddr>& to,
                       const Tamtk::Utf8Array& subject, const Tamtk::Utf8Array& body,
                       std::map<std::string, std::string> extraHeaders) {
    if (to.empty()) {
        throw std::out_of_range("vector");
    }
    std::ostringstream out;
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
    out << "MIME-Version: 1.0\n"
        << "Content-Disposition: inline\n"
        << "Content-Type: text/plain; charset=\"" << charset << "\"\n"
        << "Content-Transfer-Encoding: base64\n"
        << '\n';
    encodeBody(out, charset, body);
    return out.str();
}

}  // namespace EmailChannel
}  // namespace Osk
