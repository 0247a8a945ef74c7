#pragma once

#include <atomic>
#include <cstddef>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <utility>

#include "Toolkit/Export.h"
#include "Toolkit/Utf8Char.h"
#include "Toolkit/Utf8Iterator.h"

namespace Tamtk {

namespace internal {
namespace utf8 {

// The bytes of one or more Utf8Arrays. Copies of an array share its block;
// the first change to a shared block gives the changing array its own.
struct buffer_block {
    std::atomic<unsigned> refs;
    unsigned length;    // bytes of text, without the terminating NUL
    unsigned capacity;  // bytes of text that fit in place
    char* bytes;        // NUL-terminated
    void (*destroy)(buffer_block*);
};

}  // namespace utf8
}  // namespace internal

// UTF-8 text: a NUL-terminated byte buffer counted and walked by characters.
//
// Copying shares the bytes (a reference count), so copies are cheap; any
// change detaches the changed array first. The buffer is not validated when
// it is made: iterators detect malformed sequences as they step over them.
class TAMTK_API Utf8Array {
public:
    typedef char* Utf8RawData;
    typedef internal::utf8::array_iterator<false> iterator;
    typedef internal::utf8::array_iterator<true> const_iterator;
    typedef Utf8Char value_type;

    Utf8Array() noexcept : block_(nullptr) {}
    // NUL-terminated text; null makes an empty array.
    Utf8Array(const char* text);  // NOLINT: implicit on purpose, texts are passed as literals
    // `length` bytes of any byte type (char, unsigned char as from libxml2).
    template <class C>
    Utf8Array(const C* bytes, unsigned length) : block_(nullptr) {
        static_assert(sizeof(C) == 1, "Utf8Array is made from bytes");
        assign(reinterpret_cast<const char*>(bytes), length);
    }
    explicit Utf8Array(const std::string& text);
    // Takes the string's buffer over instead of copying its bytes.
    explicit Utf8Array(std::string&& text);
    // Takes over `data`, which must hold `length` bytes plus one more that
    // becomes the terminating NUL; `release(data)` is called when the last
    // array sharing it goes (a null `release` frees nothing).
    Utf8Array(Utf8RawData data, unsigned length, void (*release)(void*));

    Utf8Array(const Utf8Array& other) noexcept : block_(other.block_) {
        if (block_)
            block_->refs.fetch_add(1, std::memory_order_relaxed);
    }
    Utf8Array(Utf8Array&& other) noexcept : block_(other.block_) { other.block_ = nullptr; }
    Utf8Array& operator=(const Utf8Array& other) noexcept;
    Utf8Array& operator=(Utf8Array&& other) noexcept;
    ~Utf8Array() {
        if (block_)
            release(block_);
    }

    const char* c_str() const noexcept { return block_ ? block_->bytes : empty_text_; }
    const char* data() const noexcept { return c_str(); }
    // Bytes.
    unsigned length() const noexcept { return block_ ? block_->length : 0; }
    // Characters.
    unsigned size() const noexcept { return internal::utf8::count_utf8_chars(data(), length()); }
    bool empty() const noexcept { return length() == 0; }
    unsigned capacity() const noexcept { return block_ ? block_->capacity : 0; }
    std::string str() const { return std::string(data(), length()); }

    void clear() noexcept;
    // Makes room for at least `bytes` bytes of text; the text is kept.
    void allocate(unsigned bytes);
    void push_back(const Utf8Char& c);
    // Inserts `c` before `where`; returns an iterator on the inserted character.
    iterator insert(iterator where, const Utf8Char& c);
    // Inserts before `where` the bytes of [first, last): a range of bytes
    // (char, unsigned char) or of Utf8Chars (e.g. another array's iterators).
    template <class Itr>
    iterator insert(iterator where, Itr first, Itr last);
    // Replaces the character that starts at `where` by `c` (appends at the
    // end; an empty `c` removes the character). Returns where the character
    // now is, which moves when the buffer had to move.
    const char* update_at(const char* where, const Utf8Char& c);

    iterator begin() { return iterator(data(), data() + length(), this); }
    iterator end() { return iterator(data() + length(), data() + length(), this); }
    const_iterator begin() const { return cbegin(); }
    const_iterator end() const { return cend(); }
    const_iterator cbegin() const { return const_iterator(data(), data() + length(), this); }
    const_iterator cend() const {
        return const_iterator(data() + length(), data() + length(), this);
    }

    // The bytes between two iterators into this array, as [begin, end).
    std::pair<const char*, const char*> range(const_iterator first, const_iterator last) const;

    // Start of the last character of [bytes, bytes + length); null when
    // length is 0. With `complete` a last sequence that is cut short or has
    // no lead byte throws Utf8Exception; without it the start of the cut
    // sequence is returned (null when there is no lead byte at all).
    const char* find_start_of_last_char(const char* bytes, unsigned length, bool complete) const;

    bool operator==(const Utf8Array& other) const noexcept;
    bool operator!=(const Utf8Array& other) const noexcept { return !(*this == other); }

private:
    static const char empty_text_[1];

    void assign(const char* bytes, unsigned length);
    static void release(internal::utf8::buffer_block* block) noexcept;
    // Byte offset of a position given by `where`; throws "Invalid iterator
    // was applied" unless it belongs to this array and lies within it.
    unsigned offset_of(const iterator& where, const char* function, int line) const;
    unsigned offset_of(const char* where, const char* function, int line) const;
    // Replaces `removed` bytes at `at` by room for `inserted` bytes, detaching
    // a shared buffer; returns the first byte of the room.
    char* make_room(unsigned at, unsigned removed, std::size_t inserted);
    iterator insert_bytes(unsigned at, const char* bytes, std::size_t length);

    internal::utf8::buffer_block* block_;
};

TAMTK_API std::ostream& operator<<(std::ostream& out, const Utf8Array& text);

template <class Itr>
Utf8Array::iterator Utf8Array::insert(iterator where, Itr first, Itr last) {
    const unsigned at = offset_of(where, __PRETTY_FUNCTION__, __LINE__);
    typedef typename std::iterator_traits<Itr>::value_type V;
    if constexpr (std::is_same_v<Itr, iterator> || std::is_same_v<Itr, const_iterator>) {
        return insert_bytes(at, first.position(),
                            static_cast<std::size_t>(last.position() - first.position()));
    } else if constexpr (std::is_same_v<std::remove_cv_t<V>, Utf8Char>) {
        std::string bytes;
        for (; first != last; ++first) {
            const Utf8Char& c = *first;
            bytes.append(c.c_str(), c.length());
        }
        return insert_bytes(at, bytes.data(), bytes.size());
    } else {
        static_assert(sizeof(V) == 1, "insert takes a range of bytes or of Utf8Chars");
        if constexpr (std::is_pointer_v<Itr>) {
            return insert_bytes(at, reinterpret_cast<const char*>(first),
                                static_cast<std::size_t>(last - first));
        } else {
            const std::string bytes(first, last);
            return insert_bytes(at, bytes.data(), bytes.size());
        }
    }
}

namespace internal {
namespace utf8 {

template <bool c_>
array_iterator<c_>& array_iterator<c_>::operator--() {
    const char* prev = owner_ ? find_prev_utf8(current_, owner_->data()) : nullptr;
    if (!prev) {
        raise_utf8("Utf8Array has invalid buffer", "array_iterator", __LINE__, __PRETTY_FUNCTION__);
    }
    current_ = prev;
    reload();
    return *this;
}

template <bool c_>
void array_iterator<c_>::set_signal() const {
    static_assert(!c_, "only a mutable iterator writes back");
    const array_iterator* self = this;
    cache_.set_signal([self](const Utf8Char& c) { self->callback(c); });
}

template <bool c_>
void array_iterator<c_>::callback(const Utf8Char& c) const {
    static_assert(!c_, "only a mutable iterator writes back");
    if (&c != &cache_ || !owner_)
        return;
    const char* base = owner_->data();
    const unsigned before = owner_->length();
    const std::ptrdiff_t endOffset = end_ - base;
    current_ = owner_->update_at(current_, c);
    end_ = owner_->data() + endOffset + (static_cast<std::ptrdiff_t>(owner_->length()) - before);
    if (c.empty())
        reload();
}

}  // namespace utf8
}  // namespace internal
}  // namespace Tamtk
