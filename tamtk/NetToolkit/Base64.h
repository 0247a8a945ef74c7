#pragma once

// Base64 (RFC 2045) of a run of bytes, without line breaks: callers that
// need lines cut their input first (57 bytes make a line of 76 characters).

#include <cstddef>

#include "NetToolkit/BlockEncoder.h"

namespace Tamnet {
namespace internal {
namespace rfc2045 {

// The 64 digits followed by the pad character at index 64.
inline constexpr char Base64Table[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
// The table index of a missing input byte: it prints the pad character.
inline constexpr unsigned Base64PlaceHolder = 64;

static_assert(sizeof Base64Table == 66 && Base64Table[Base64PlaceHolder] == '=',
              "64 digits and the pad character");

// Encodes `count` bytes into `text`, which has room for 4 * ceil(count / 3)
// characters, and returns the end of what it wrote.
inline char* encodeBlock(const unsigned char* bytes, std::size_t count, char* text) noexcept {
    const char* const table = Base64Table;
    const unsigned char* const fullGroups = bytes + (count - count % 3);
    for (; bytes != fullGroups; bytes += 3, text += 4) {
        const unsigned b0 = bytes[0];
        const unsigned b1 = bytes[1];
        const unsigned b2 = bytes[2];
        text[0] = table[b0 >> 2];
        text[1] = table[((b0 & 3) << 4) | (b1 >> 4)];
        text[2] = table[((b1 & 0x0F) << 2) | (b2 >> 6)];
        text[3] = table[b2 & 0x3F];
    }
    switch (count % 3) {
        case 1: {
            const unsigned b0 = bytes[0];
            text[0] = table[b0 >> 2];
            text[1] = table[(b0 & 3) << 4];
            text[2] = table[Base64PlaceHolder];
            text[3] = table[Base64PlaceHolder];
            return text + 4;
        }
        case 2: {
            const unsigned b0 = bytes[0];
            const unsigned b1 = bytes[1];
            text[0] = table[b0 >> 2];
            text[1] = table[((b0 & 3) << 4) | (b1 >> 4)];
            text[2] = table[(b1 & 0x0F) << 2];
            text[3] = table[Base64PlaceHolder];
            return text + 4;
        }
        default:
            return text;
    }
}

// Characters of the Base64 text of `count` bytes.
constexpr std::size_t encodedLength(std::size_t count) noexcept {
    return (count + 2) / 3 * 4;
}

// A multiple of 3, so that only the last block has a partial group.
constexpr std::size_t BlockBytes = 3 * 256;

}  // namespace rfc2045
}  // namespace internal

// Writes the Base64 text of the bytes [begin, end) to `out` and returns the
// advanced iterator. Empty input writes nothing.
template <class InputItr, class OutputItr>
OutputItr base64(InputItr begin, InputItr end, OutputItr out) {
    using namespace internal::rfc2045;
    internal::reserveChars(out, encodedLength(internal::knownLength(begin, end)));
    return internal::encodeBlocks<BlockBytes, encodedLength(BlockBytes)>(begin, end, out,
                                                                         encodeBlock);
}

}  // namespace Tamnet
