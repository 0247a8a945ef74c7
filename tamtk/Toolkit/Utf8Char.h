#pragma once

#include <boost/function.hpp>
#include <cstring>
#include <iosfwd>

#include "Toolkit/Exceptions.h"
#include "Toolkit/Export.h"

namespace Tamtk {

class Utf8Char;

namespace internal {
namespace utf8 {

template <bool c_>
class array_iterator;

// Byte length (1..6) of the sequence that `lead` opens; 0 when `lead` cannot
// open one (a continuation byte, 0xFE or 0xFF).
inline unsigned num_utf8_chars(char lead) noexcept {
    const unsigned char b = static_cast<unsigned char>(lead);
    if (b < 0x80)
        return 1;
    if (b < 0xC0)
        return 0;
    if (b < 0xE0)
        return 2;
    if (b < 0xF0)
        return 3;
    if (b < 0xF8)
        return 4;
    if (b < 0xFC)
        return 5;
    if (b < 0xFE)
        return 6;
    return 0;
}

inline bool is_continuation(char b) noexcept {
    return (static_cast<unsigned char>(b) & 0xC0) == 0x80;
}

// Length of the complete, well-formed sequence at `p` that ends at or before
// `end`; 0 when the bytes there are not one.
inline unsigned sequence_length(const char* p, const char* end) noexcept {
    if (p >= end)
        return 0;
    const unsigned n = num_utf8_chars(*p);
    if (n == 0 || static_cast<unsigned long>(end - p) < n)
        return 0;
    for (unsigned i = 1; i < n; ++i) {
        if (!is_continuation(p[i]))
            return 0;
    }
    return n;
}

// Start of the character after the one at `p` in NUL-terminated text; null
// when none follows or the sequence at `p` is malformed.
TAMTK_API const char* find_next_utf8(const char* p) noexcept;
// The same within [p, end): null when the sequence at `p` is the last one or
// is malformed or cut short.
TAMTK_API const char* find_next_utf8(const char* p, const char* end) noexcept;
// Start of the character before `p`, not looking before `begin`; null at the
// beginning or when the bytes before `p` are not one complete sequence.
TAMTK_API const char* find_prev_utf8(const char* p, const char* begin) noexcept;
// Number of characters in `length` bytes (lead bytes are counted; a stray
// continuation byte counts for nothing).
TAMTK_API unsigned count_utf8_chars(const char* p, unsigned length) noexcept;

}  // namespace utf8
}  // namespace internal

// One UTF-8 encoded character of one to six bytes, NUL-terminated.
//
// A character may carry a change signal. Iterators over a Utf8Array install
// one on the character they hand out, so that assigning to `*it` writes the
// new character back into the array. The signal belongs to the object, not to
// its value: copies never carry it and assignment keeps the target's own.
class TAMTK_API Utf8Char {
public:
    typedef boost::function1<void, const Utf8Char&> signal_type;
    static constexpr unsigned max_length = 6;

    Utf8Char() noexcept : length_(0) { bytes_[0] = '\0'; }
    // Exactly the one byte `c`, whatever it is.
    explicit Utf8Char(char c) noexcept : length_(1) {
        bytes_[0] = c;
        bytes_[1] = '\0';
    }
    // The UTF-8 bytes packed big-endian with leading zero bytes dropped:
    // 0xE296A0 is E2 96 A0, 0x41 is "A", 0 is the empty character. Throws
    // Utf8Exception unless the bytes are exactly one well-formed sequence.
    explicit Utf8Char(wchar_t packed);
    Utf8Char(const Utf8Char& other) noexcept : length_(other.length_) {
        std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    }
    // Takes the value and then fires this character's signal, if any.
    Utf8Char& operator=(const Utf8Char& other);

    // Copies the one character at `bytes`, reading at most `maxBytes` bytes
    // (callers pass 6), then fires the signal. Throws Utf8Exception when the
    // bytes are not one complete sequence within that limit.
    void raw_copy(const char* bytes, unsigned maxBytes);

    const char* c_str() const noexcept { return bytes_; }
    unsigned length() const noexcept { return length_; }
    bool empty() const noexcept { return length_ == 0; }

    void set_signal(const signal_type& signal) { signal_ = signal; }
    bool has_signal() const noexcept { return !signal_.empty(); }
    void clear_signal() noexcept { signal_.clear(); }

    bool operator==(const Utf8Char& other) const noexcept {
        return length_ == other.length_ && std::memcmp(bytes_, other.bytes_, length_) == 0;
    }
    bool operator!=(const Utf8Char& other) const noexcept { return !(*this == other); }

private:
    template <bool>
    friend class internal::utf8::array_iterator;

    // Takes `n` (at most max_length) bytes without firing the signal.
    void load(const char* p, unsigned n) noexcept {
        if (n)
            std::memcpy(bytes_, p, n);
        bytes_[n] = '\0';
        length_ = static_cast<unsigned char>(n);
    }

    char bytes_[max_length + 1];
    unsigned char length_;
    signal_type signal_;
};

TAMTK_API std::ostream& operator<<(std::ostream& out, const Utf8Char& c);

}  // namespace Tamtk
