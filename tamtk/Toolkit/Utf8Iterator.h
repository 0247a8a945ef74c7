#pragma once

#include <cstddef>
#include <iterator>
#include <type_traits>

#include "Toolkit/Location.h"
#include "Toolkit/Utf8Char.h"

namespace Tamtk {

class Utf8Array;

namespace internal {
namespace utf8 {

// Raise Utf8Exception; kept out of line so the stepping code stays small.
[[noreturn]] TAMTK_API void raise_utf8(const char* message, const char* source, int line,
                                       const char* function);

// Walks a UTF-8 buffer one character at a time in either direction and keeps
// a copy of the character it stands on. The mutable form (c_ false) hands
// that copy out as a writable Utf8Char whose change signal writes it back
// into the owning array; the signal is installed on first dereference, so
// plain stepping costs no more than for the const form.
//
// A write that changes the array invalidates every other iterator into it,
// as for std::string; the writing iterator itself stays valid.
template <bool c_>
class array_iterator {
public:
    typedef std::bidirectional_iterator_tag iterator_category;
    typedef Utf8Char value_type;
    typedef std::ptrdiff_t difference_type;
    typedef std::conditional_t<c_, const Utf8Char&, Utf8Char&> reference;
    typedef std::conditional_t<c_, const Utf8Char*, Utf8Char*> pointer;
    typedef std::conditional_t<c_, const Utf8Array, Utf8Array> owner_type;

    array_iterator() noexcept : current_(nullptr), end_(nullptr), owner_(nullptr) {}
    array_iterator(const char* current, const char* end, owner_type* owner) noexcept
        : current_(current), end_(end), owner_(owner) {
        reload();
    }
    array_iterator(const array_iterator& other) noexcept
        : current_(other.current_), end_(other.end_), owner_(other.owner_), cache_(other.cache_) {}
    // A mutable iterator converts to a const one.
    template <bool o_, class = std::enable_if_t<c_ && !o_>>
    array_iterator(const array_iterator<o_>& other) noexcept
        : current_(other.position()), end_(other.buffer_end()), owner_(other.owner()) {
        reload();
    }
    // Repositions without writing anything: the cached character is reloaded
    // silently and keeps this iterator's own signal.
    array_iterator& operator=(const array_iterator& other) noexcept {
        current_ = other.current_;
        end_ = other.end_;
        owner_ = other.owner_;
        cache_.load(other.cache_.bytes_, other.cache_.length_);
        return *this;
    }

    array_iterator& operator++() {
        if (current_ == end_) {
            raise_utf8("Increment past the end of Utf8Array", "array_iterator", __LINE__,
                       __PRETTY_FUNCTION__);
        }
        const unsigned n = sequence_length(current_, end_);
        if (n == 0) {
            raise_utf8("Utf8Array has invalid buffer", "array_iterator", __LINE__,
                       __PRETTY_FUNCTION__);
        }
        current_ += n;
        reload();
        return *this;
    }
    array_iterator operator++(int) {
        array_iterator before(*this);
        ++*this;
        return before;
    }
    array_iterator& operator--();
    array_iterator operator--(int) {
        array_iterator before(*this);
        --*this;
        return before;
    }

    reference operator*() const {
        if constexpr (!c_) {
            if (!cache_.has_signal())
                set_signal();
        }
        return cache_;
    }
    pointer operator->() const { return &**this; }

    template <bool o_>
    bool operator==(const array_iterator<o_>& other) const noexcept {
        return current_ == other.position();
    }
    template <bool o_>
    bool operator!=(const array_iterator<o_>& other) const noexcept {
        return current_ != other.position();
    }

    // First byte of the current character (the end of the buffer at the end).
    const char* position() const noexcept { return current_; }
    const char* buffer_end() const noexcept { return end_; }
    owner_type* owner() const noexcept { return owner_; }

    // Makes the cached character report assignments to callback().
    void set_signal() const;
    // Writes `c` back at this position, when `c` is this iterator's own
    // cached character and no other. An empty character removes the one
    // here; the iterator then stands on the character that followed.
    void callback(const Utf8Char& c) const;

private:
    void reload() const noexcept {
        if (current_ == end_) {
            cache_.load(nullptr, 0);
            return;
        }
        unsigned n = num_utf8_chars(*current_);
        if (static_cast<unsigned long>(end_ - current_) < n)
            n = static_cast<unsigned>(end_ - current_);
        cache_.load(current_, n);
    }

    // Mutable so that a write through a const iterator can follow the array
    // when the write moves its buffer.
    mutable const char* current_;
    mutable const char* end_;
    owner_type* owner_;
    mutable Utf8Char cache_;
};

}  // namespace utf8
}  // namespace internal
}  // namespace Tamtk
