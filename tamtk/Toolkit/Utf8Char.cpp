#include "Toolkit/Utf8Char.h"

#include <cstdint>
#include <ostream>

#include "Toolkit/Utf8Iterator.h"

namespace Tamtk {

namespace {
const char* const _source = "Utf8Char";
}  // namespace

namespace internal {
namespace utf8 {

void raise_utf8(const char* message, const char* source, int line, const char* function) {
    throw Utf8Exception(ExceptionString(message), Location(source, line, function));
}

const char* find_next_utf8(const char* p) noexcept {
    if (*p == '\0')
        return nullptr;
    const unsigned n = num_utf8_chars(*p);
    if (n == 0)
        return nullptr;
    // A NUL is no continuation byte, so this stops at the terminator.
    for (unsigned i = 1; i < n; ++i) {
        if (!is_continuation(p[i]))
            return nullptr;
    }
    return p[n] == '\0' ? nullptr : p + n;
}

const char* find_next_utf8(const char* p, const char* end) noexcept {
    const unsigned n = sequence_length(p, end);
    return n == 0 || p + n == end ? nullptr : p + n;
}

const char* find_prev_utf8(const char* p, const char* begin) noexcept {
    if (!p || !begin || p <= begin)
        return nullptr;
    const char* q = p - 1;
    while (q > begin && is_continuation(*q) && p - q < static_cast<long>(Utf8Char::max_length)) {
        --q;
    }
    return num_utf8_chars(*q) == static_cast<unsigned>(p - q) ? q : nullptr;
}

unsigned count_utf8_chars(const char* p, unsigned length) noexcept {
    unsigned leads = 0;
    for (unsigned i = 0; i < length; ++i) {
        leads += !is_continuation(p[i]);
    }
    return leads;
}

}  // namespace utf8
}  // namespace internal

Utf8Char::Utf8Char(wchar_t packed) : length_(0) {
    std::uint32_t value = static_cast<std::uint32_t>(packed);
    char bytes[4];
    unsigned n = 0;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char b = static_cast<char>((value >> shift) & 0xFF);
        if (n || b)
            bytes[n++] = b;
    }
    if (n && internal::utf8::sequence_length(bytes, bytes + n) != n) {
        TAMTK_THROW(Utf8Exception, _source,
                    "Packed value 0x" << std::hex << value << " is not one UTF-8 character");
    }
    load(bytes, n);
}

Utf8Char& Utf8Char::operator=(const Utf8Char& other) {
    if (this != &other)
        load(other.bytes_, other.length_);
    if (signal_)
        signal_(*this);
    return *this;
}

void Utf8Char::raw_copy(const char* bytes, unsigned maxBytes) {
    if (!bytes || maxBytes == 0) {
        TAMTK_THROW(Utf8Exception, _source, "No bytes to copy a UTF-8 character from");
    }
    const unsigned n = internal::utf8::num_utf8_chars(*bytes);
    if (n == 0 || n > maxBytes || internal::utf8::sequence_length(bytes, bytes + n) != n) {
        TAMTK_THROW(
            Utf8Exception, _source,
            "Bytes do not hold one complete UTF-8 character within " << maxBytes << " bytes");
    }
    load(bytes, n);
    if (signal_)
        signal_(*this);
}

std::ostream& operator<<(std::ostream& out, const Utf8Char& c) {
    return out.write(c.c_str(), c.length());
}

}  // namespace Tamtk
