#pragma once

// Base64 (RFC 2045) of a run of bytes, without line breaks: callers that
// need lines cut their input first (57 bytes make a line of 76 characters).

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "NetToolkit/BlockEncoder.h"
#include "Toolkit/Export.h"

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

// The two digits of every 12-bit value, first digit first: a group of
// three bytes is two such values, so it takes two look-ups and two 2-byte
// copies instead of four look-ups and the shifts and masks around them.
struct Base64PairTable {
    char pairs[4096][2];
    constexpr Base64PairTable() : pairs() {
        for (unsigned i = 0; i < 4096; ++i) {
            pairs[i][0] = Base64Table[i >> 6];
            pairs[i][1] = Base64Table[i & 0x3F];
        }
    }
};
inline constexpr Base64PairTable Base64Pairs{};

// The vector encoders, by the instructions they need.
enum class Kernel { Portable, Avx2, Avx512Vbmi };

// Whether this processor (and its operating system) can run `kernel`.
TAMTK_API bool kernelSupported(Kernel kernel) noexcept;
// The fastest kernel this processor runs.
TAMTK_API Kernel bestKernel() noexcept;

// Encodes the longest run of whole groups from the start of `bytes` that
// the best kernel takes in its steps, and returns how many bytes that was
// (a multiple of 3, possibly 0); the caller encodes the rest.
TAMTK_API std::size_t encodeWide(const unsigned char* bytes, std::size_t count,
                                 char* text) noexcept;
// The same with a given kernel; nothing (0) where the processor lacks it.
TAMTK_API std::size_t encodeWideWith(Kernel kernel, const unsigned char* bytes, std::size_t count,
                                     char* text) noexcept;

// Below this many bytes the call to a vector kernel costs more than it saves.
constexpr std::size_t WideMinimum = 48;

// Encodes `count` bytes into `text`, which has room for 4 * ceil(count / 3)
// characters, and returns the end of what it wrote.
inline char* encodeBlock(const unsigned char* bytes, std::size_t count, char* text) noexcept {
    const char* const table = Base64Table;
    if (count >= WideMinimum) {
        const std::size_t done = encodeWide(bytes, count, text);
        bytes += done;
        count -= done;
        text += done / 3 * 4;
    }
    const unsigned char* const fullGroups = bytes + (count - count % 3);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    // Two groups per step: one 8-byte load (of which 6 bytes are used, so
    // it needs 8 in hand) gives four pairs, stored as one 8-byte word.
    for (; fullGroups - bytes >= 8; bytes += 6, text += 8) {
        std::uint64_t in;
        std::memcpy(&in, bytes, 8);
        in = __builtin_bswap64(in);
        std::uint16_t pair[4];
        std::memcpy(&pair[0], Base64Pairs.pairs[(in >> 52) & 0xFFF], 2);
        std::memcpy(&pair[1], Base64Pairs.pairs[(in >> 40) & 0xFFF], 2);
        std::memcpy(&pair[2], Base64Pairs.pairs[(in >> 28) & 0xFFF], 2);
        std::memcpy(&pair[3], Base64Pairs.pairs[(in >> 16) & 0xFFF], 2);
        const std::uint64_t out = std::uint64_t{pair[0]} | (std::uint64_t{pair[1]} << 16) |
                                  (std::uint64_t{pair[2]} << 32) | (std::uint64_t{pair[3]} << 48);
        std::memcpy(text, &out, 8);
    }
#endif
    for (; bytes != fullGroups; bytes += 3, text += 4) {
        const unsigned group = (unsigned{bytes[0]} << 16) | (unsigned{bytes[1]} << 8) | bytes[2];
        std::memcpy(text, Base64Pairs.pairs[group >> 12], 2);
        std::memcpy(text + 2, Base64Pairs.pairs[group & 0xFFF], 2);
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
constexpr std::size_t BlockBytes = 3 * 1024;

}  // namespace rfc2045
}  // namespace internal

// Characters of the Base64 text of `count` bytes, padding included.
constexpr std::size_t base64Length(std::size_t count) noexcept {
    return internal::rfc2045::encodedLength(count);
}

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
