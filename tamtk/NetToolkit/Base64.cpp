#include "NetToolkit/Base64.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define TAMTK_BASE64_X86 1
#include <immintrin.h>
#endif

// GCC's byte-permutation intrinsics start from a deliberately undefined
// vector, which its flow analysis then reports as maybe uninitialised.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace Tamnet {
namespace internal {
namespace rfc2045 {

namespace {

#ifdef TAMTK_BASE64_X86

// Both vector kernels first spread each group of three bytes b0 b1 b2 over
// a 32-bit lane as b1 b0 b2 b1: read as a little-endian word, the four
// 6-bit digits then sit at bits 10, 4, 22 and 16, whole and in order.

// 48 bytes to 64 characters per step: one byte permutation spreads the
// groups, one multishift pulls every digit out of its lane (the offsets
// 10, 4, 22, 16 and the same plus 32 for the second lane of each quadword),
// and a second permutation, which only looks at the low 6 bits of each
// index, maps digits to characters.
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) std::size_t _encodeAvx512Vbmi(
    const unsigned char* bytes, std::size_t count, char* text) noexcept {
    const __m512i spread =
        _mm512_setr_epi32(0x01020001, 0x04050304, 0x07080607, 0x0a0b090a, 0x0d0e0c0d, 0x10110f10,
                          0x13141213, 0x16171516, 0x191a1819, 0x1c1d1b1c, 0x1f201e1f, 0x22232122,
                          0x25262425, 0x28292728, 0x2b2c2a2b, 0x2e2f2d2e);
    const __m512i digitOffsets = _mm512_set1_epi64(0x3036242a1016040a);
    const __m512i alphabet = _mm512_loadu_si512(Base64Table);
    // Only the 48 bytes a step encodes are read: the masked load never
    // touches memory past the input.
    const __mmask64 stepBytes = 0x0000FFFFFFFFFFFFull;
    std::size_t done = 0;
    for (; count - done >= 48; done += 48, text += 64) {
        const __m512i in = _mm512_maskz_loadu_epi8(stepBytes, bytes + done);
        const __m512i groups = _mm512_permutexvar_epi8(spread, in);
        const __m512i digits = _mm512_multishift_epi64_epi8(digitOffsets, groups);
        _mm512_storeu_si512(text, _mm512_permutexvar_epi8(digits, alphabet));
    }
    return done;
}

// 24 bytes to 32 characters per step: each 128-bit half takes 12 bytes
// (from a 16-byte load, so a step needs 28 bytes in hand). Masks and
// 16-bit multiplies move the digits to byte boundaries; the digit to
// character map adds one of 14 offsets, picked by range.
__attribute__((target("avx2"))) std::size_t _encodeAvx2(const unsigned char* bytes,
                                                        std::size_t count, char* text) noexcept {
    const __m256i spread = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10,  //
                                            1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    const __m256i highMask = _mm256_set1_epi32(0x0fc0fc00);
    const __m256i highShift = _mm256_set1_epi32(0x04000040);
    const __m256i lowMask = _mm256_set1_epi32(0x003f03f0);
    const __m256i lowShift = _mm256_set1_epi32(0x01000010);
    // Offsets by range: 0 for 'a'..'z' (26..51), 1-10 for the figures,
    // 11 for '+', 12 for '/', 13 for 'A'..'Z' (0..25).
    const __m256i offsets =
        _mm256_setr_epi8('a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0,
                         'a' - 26, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52, '0' - 52,
                         '0' - 52, '0' - 52, '0' - 52, '0' - 52, '+' - 62, '/' - 63, 'A', 0, 0);
    std::size_t done = 0;
    for (; count - done >= 28; done += 24, text += 32) {
        const __m128i low = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + done));
        const __m128i high = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + done + 12));
        const __m256i in = _mm256_shuffle_epi8(
            _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1), spread);
        const __m256i digits =
            _mm256_or_si256(_mm256_mulhi_epu16(_mm256_and_si256(in, highMask), highShift),
                            _mm256_mullo_epi16(_mm256_and_si256(in, lowMask), lowShift));
        __m256i range = _mm256_subs_epu8(digits, _mm256_set1_epi8(51));
        const __m256i upper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), digits);
        range = _mm256_or_si256(range, _mm256_and_si256(upper, _mm256_set1_epi8(13)));
        const __m256i chars = _mm256_add_epi8(_mm256_shuffle_epi8(offsets, range), digits);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(text), chars);
    }
    return done;
}

#endif

std::size_t _encodeNone(const unsigned char*, std::size_t, char*) noexcept {
    return 0;
}

using Encoder = std::size_t (*)(const unsigned char*, std::size_t, char*) noexcept;

Encoder _encoderOf(Kernel kernel) noexcept {
#ifdef TAMTK_BASE64_X86
    switch (kernel) {
        case Kernel::Avx512Vbmi:
            return _encodeAvx512Vbmi;
        case Kernel::Avx2:
            return _encodeAvx2;
        case Kernel::Portable:
            break;
    }
#else
    (void)kernel;
#endif
    return _encodeNone;
}

}  // namespace

bool kernelSupported(Kernel kernel) noexcept {
#ifdef TAMTK_BASE64_X86
    // The loader may run this before the runtime has read the processor's
    // features.
    __builtin_cpu_init();
    switch (kernel) {
        case Kernel::Avx512Vbmi:
            return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                   __builtin_cpu_supports("avx512vbmi");
        case Kernel::Avx2:
            return __builtin_cpu_supports("avx2");
        case Kernel::Portable:
            return true;
    }
    return false;
#else
    return kernel == Kernel::Portable;
#endif
}

Kernel bestKernel() noexcept {
    for (Kernel kernel : {Kernel::Avx512Vbmi, Kernel::Avx2}) {
        if (kernelSupported(kernel)) {
            return kernel;
        }
    }
    return Kernel::Portable;
}

std::size_t encodeWide(const unsigned char* bytes, std::size_t count, char* text) noexcept {
    // Chosen on first use, so that no other initialiser can run before it.
    static const Encoder wideEncoder = _encoderOf(bestKernel());
    return wideEncoder(bytes, count, text);
}

std::size_t encodeWideWith(Kernel kernel, const unsigned char* bytes, std::size_t count,
                           char* text) noexcept {
    return kernelSupported(kernel) ? _encoderOf(kernel)(bytes, count, text) : 0;
}

}  // namespace rfc2045
}  // namespace internal
}  // namespace Tamnet
