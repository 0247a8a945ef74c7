#pragma once

// The frame of the byte-to-text encoders (Base64, the Q form of encoded
// words). Encoders run on blocks of bytes into a text buffer on the stack, so
// nothing is allocated or formatted per byte, and each block of text goes to
// the output iterator in one piece where the target allows it (a string
// being appended to, a stream); any other output iterator gets std::copy.

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <ostream>
#include <string>
#include <type_traits>

namespace Tamnet {
namespace internal {

// An output iterator over a stream that can also take whole blocks.
class ostream_writer {
public:
    typedef std::output_iterator_tag iterator_category;
    typedef void value_type;
    typedef void difference_type;
    typedef void pointer;
    typedef void reference;

    explicit ostream_writer(std::ostream& out) noexcept : out_(&out) {}
    ostream_writer& operator=(char c) {
        out_->put(c);
        return *this;
    }
    ostream_writer& operator*() noexcept { return *this; }
    ostream_writer& operator++() noexcept { return *this; }
    ostream_writer& operator++(int) noexcept { return *this; }

    void write(const char* text, std::size_t length) {
        out_->write(text, static_cast<std::streamsize>(length));
    }

private:
    std::ostream* out_;
};

namespace sink {

// The string behind a back-inserter: the standard names its `container`
// member, protected so that derived iterators can reach it.
class string_access : public std::back_insert_iterator<std::string> {
public:
    explicit string_access(std::back_insert_iterator<std::string> it)
        : std::back_insert_iterator<std::string>(it) {}
    std::string& target() const noexcept { return *container; }
};

}  // namespace sink

template <class OutputItr>
OutputItr emitChars(const char* text, std::size_t length, OutputItr out) {
    return std::copy(text, text + length, out);
}

inline std::back_insert_iterator<std::string> emitChars(
    const char* text, std::size_t length, std::back_insert_iterator<std::string> out) {
    sink::string_access(out).target().append(text, length);
    return out;
}

inline ostream_writer emitChars(const char* text, std::size_t length, ostream_writer out) {
    out.write(text, length);
    return out;
}

// Room for `length` more characters, where the target can make it in advance.
template <class OutputItr>
void reserveChars(const OutputItr&, std::size_t) noexcept {}

inline void reserveChars(std::back_insert_iterator<std::string> out, std::size_t length) {
    std::string& target = sink::string_access(out).target();
    const std::size_t needed = target.size() + length;
    // Grow geometrically: exact reservations, repeated, would copy the
    // string every time something is appended to it.
    if (needed > target.capacity()) {
        target.reserve(std::max(needed, 2 * target.capacity()));
    }
}

template <class InputItr>
struct is_byte_pointer
    : std::integral_constant<
          bool, std::is_pointer<InputItr>::value &&
                    (std::is_same<std::remove_cv_t<std::remove_pointer_t<InputItr>>, char>::value ||
                     std::is_same<std::remove_cv_t<std::remove_pointer_t<InputItr>>,
                                  unsigned char>::value ||
                     std::is_same<std::remove_cv_t<std::remove_pointer_t<InputItr>>,
                                  signed char>::value)> {};

// Runs `encode(const unsigned char* bytes, std::size_t count, char* text)`,
// which returns the end of the text it wrote, over the input in blocks of
// BlockBytes bytes; TextChars is the most text one block can give. Byte
// pointers are encoded in place, other iterators through a copy; from byte
// pointers into a char buffer, the whole input is one block.
template <std::size_t BlockBytes, std::size_t TextChars, class InputItr, class OutputItr,
          class Encode>
OutputItr encodeBlocks(InputItr begin, InputItr end, OutputItr out, Encode encode) {
    if constexpr (is_byte_pointer<InputItr>::value && std::is_same<OutputItr, char*>::value) {
        // Text for a plain buffer goes straight into it, in one call.
        return encode(reinterpret_cast<const unsigned char*>(begin),
                      static_cast<std::size_t>(end - begin), out);
    }
    char text[TextChars];
    if constexpr (is_byte_pointer<InputItr>::value) {
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(begin);
        const unsigned char* const last = reinterpret_cast<const unsigned char*>(end);
        while (bytes != last) {
            const std::size_t count = std::min(BlockBytes, static_cast<std::size_t>(last - bytes));
            out = emitChars(text, static_cast<std::size_t>(encode(bytes, count, text) - text), out);
            bytes += count;
        }
    } else {
        unsigned char bytes[BlockBytes];
        while (begin != end) {
            std::size_t count = 0;
            for (; count < BlockBytes && begin != end; ++begin) {
                bytes[count++] = static_cast<unsigned char>(*begin);
            }
            out = emitChars(text, static_cast<std::size_t>(encode(bytes, count, text) - text), out);
        }
    }
    return out;
}

// The input's length where it is known without walking it, else 0.
template <class InputItr>
std::size_t knownLength(InputItr begin, InputItr end) {
    if constexpr (std::is_base_of<
                      std::random_access_iterator_tag,
                      typename std::iterator_traits<InputItr>::iterator_category>::value) {
        return static_cast<std::size_t>(end - begin);
    } else {
        return 0;
    }
}

}  // namespace internal
}  // namespace Tamnet
