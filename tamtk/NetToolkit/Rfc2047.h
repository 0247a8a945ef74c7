#pragma once

// RFC 2047 encoded words: one run of bytes, already in the target character
// set, becomes exactly one word "=?charset?B?...?=" or "=?charset?Q?...?=".
// encodeRfc2047 neither splits nor folds, so a long input makes one long
// word; appendFoldedRfc2047 writes a header value of folded words.

#include <cctype>
#include <cstddef>
#include <cstring>
#include <iosfwd>
#include <string>

#include "NetToolkit/Base64.h"
#include "NetToolkit/BlockEncoder.h"
#include "Toolkit/Exceptions.h"
#include "Toolkit/Export.h"

namespace Tamnet {
namespace internal {
namespace rfc2047 {

// Bytes that the Q form writes as "=XX": spaces, controls and punctuation as
// the current C locale classifies them, every byte with the high bit set, and
// "_". Bytes from 0x80 are decided before the classification, which could
// not change the outcome for them.
class QClassifier {
public:
#if defined(__GLIBC__)
    // The table that glibc's isspace() and its kin read for the calling
    // thread's locale, fetched once per block: three library calls per byte
    // would cost more than all the rest of the encoding.
    QClassifier() noexcept : table_(*__ctype_b_loc()) {}
    bool mustEncode(unsigned char c) const noexcept {
        return c >= 0x80 || c == '_' || (table_[c] & (_ISspace | _IScntrl | _ISpunct)) != 0;
    }

private:
    const unsigned short* table_;
#else
    bool mustEncode(unsigned char c) const noexcept {
        return c >= 0x80 || c == '_' || std::isspace(c) || std::iscntrl(c) || std::ispunct(c);
    }
#endif
};

// Each byte gives at most three characters.
inline char* encodeBlock(const unsigned char* bytes, std::size_t count, char* text) noexcept {
    static constexpr char hex[] = "0123456789ABCDEF";
    const QClassifier classifier;
    for (const unsigned char* const last = bytes + count; bytes != last; ++bytes) {
        const unsigned char c = *bytes;
        if (!classifier.mustEncode(c)) {
            *text++ = static_cast<char>(c);
            continue;
        }
        // The hex value in a field two wide filled with a blank, as it has
        // always been written: a tab is "= 9", not "=09".
        *text++ = '=';
        *text++ = c < 0x10 ? ' ' : hex[c >> 4];
        *text++ = hex[c & 0x0F];
    }
    return text;
}

constexpr std::size_t BlockBytes = 256;

// The Q payload alone: spaces become "=20", never "_".
template <class InputItr, class OutputItr>
OutputItr q_encode(InputItr begin, InputItr end, OutputItr out) {
    return internal::encodeBlocks<BlockBytes, 3 * BlockBytes>(begin, end, out, encodeBlock);
}

}  // namespace rfc2047
}  // namespace internal

// Writes one encoded word of the bytes [begin, end) to `out` and returns the
// advanced iterator. The charset name is written exactly as given. An
// encoding other than B or Q raises Rfc2047Exception before anything is
// written.
template <class InputItr, class OutputItr>
OutputItr encodeRfc2047(const char* charset, InputItr begin, InputItr end, OutputItr out,
                        Rfc2047Encoding encoding) {
    if (encoding != B && encoding != Q) {
        TAMTK_THROW(Rfc2047Exception, "NetToolkit/Rfc2047", "Encoding not supported");
    }
    TAMTK_ASSERT(charset != nullptr, "NetToolkit/Rfc2047");
    const std::size_t charsetLength = std::strlen(charset);
    const std::size_t inputLength = internal::knownLength(begin, end);
    internal::reserveChars(
        out, charsetLength + 7 +
                 (encoding == B ? internal::rfc2045::encodedLength(inputLength) : 3 * inputLength));
    out = internal::emitChars("=?", 2, out);
    out = internal::emitChars(charset, charsetLength, out);
    const char middle[] = {'?', static_cast<char>(encoding), '?'};
    out = internal::emitChars(middle, sizeof middle, out);
    out = encoding == B ? base64(begin, end, out) : internal::rfc2047::q_encode(begin, end, out);
    return internal::emitChars("?=", 2, out);
}

// Bytes of text in each word that appendFoldedRfc2047 writes: 57 bytes make
// 76 Base64 characters, and the word with its charset fits a header line.
constexpr std::size_t FoldedWordBytes = 57;

// Appends [data, data + length) as the value of a header field: words of at
// most FoldedWordBytes bytes each, one to a line, each line ended by a line
// feed and every line after the first begun with a tab, so that they fold
// into one field. The cut is by bytes, so a multi-byte character may be
// split between two words; decoders join adjacent words before converting
// them. No bytes make one empty word.
TAMTK_API void appendFoldedRfc2047(std::string& out, const char* charset, const char* data,
                                   std::size_t length, Rfc2047Encoding encoding);

// The encoded word of [data, data + length) as a new string.
TAMTK_API std::string encodeRfc2047(const char* charset, const char* data, unsigned int length,
                                    Rfc2047Encoding encoding);
// Writes the encoded word of [data, data + length) to `out`.
TAMTK_API std::ostream& encodeRfc2047(std::ostream& out, const char* charset, const char* data,
                                      unsigned int length, Rfc2047Encoding encoding);

}  // namespace Tamnet
