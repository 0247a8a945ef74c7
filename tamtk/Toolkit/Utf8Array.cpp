#include "Toolkit/Utf8Array.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <ostream>

namespace Tamtk {

using internal::utf8::buffer_block;

namespace {

const char* const _source = "Utf8Array";
const char* const _invalidIterator = "Invalid iterator was applied";

void _destroyOwn(buffer_block* block) {
    block->~buffer_block();
    ::operator delete(block);
}

// Header and text in one allocation.
buffer_block* _allocate(unsigned capacity) {
    void* memory = ::operator new(sizeof(buffer_block) + capacity + 1);
    buffer_block* block = new (memory) buffer_block;
    block->refs.store(1, std::memory_order_relaxed);
    block->length = 0;
    block->capacity = capacity;
    block->bytes = reinterpret_cast<char*>(block + 1);
    block->bytes[0] = '\0';
    block->destroy = _destroyOwn;
    return block;
}

struct ExternalBlock : buffer_block {
    void (*release)(void*);
};

void _destroyExternal(buffer_block* block) {
    ExternalBlock* external = static_cast<ExternalBlock*>(block);
    if (external->release)
        external->release(external->bytes);
    delete external;
}

struct StringBlock : buffer_block {
    std::string text;
};

void _destroyString(buffer_block* block) {
    delete static_cast<StringBlock*>(block);
}

bool _within(const char* p, const char* first, const char* last) {
    // std::less gives a total order even for pointers into other buffers.
    return !std::less<const char*>()(p, first) && !std::less<const char*>()(last, p);
}

unsigned _checkedLength(std::size_t length) {
    if (length > std::numeric_limits<unsigned>::max() - 1) {
        TAMTK_THROW(Utf8Exception, _source, "Text of " << length << " bytes is too long");
    }
    return static_cast<unsigned>(length);
}

}  // namespace

const char Utf8Array::empty_text_[1] = {'\0'};

Utf8Array::Utf8Array(const char* text) : block_(nullptr) {
    if (text)
        assign(text, _checkedLength(std::strlen(text)));
}

Utf8Array::Utf8Array(const std::string& text) : block_(nullptr) {
    assign(text.data(), _checkedLength(text.size()));
}

Utf8Array::Utf8Array(std::string&& text) : block_(nullptr) {
    const unsigned length = _checkedLength(text.size());
    if (length == 0)
        return;
    StringBlock* block = new StringBlock;
    block->text = std::move(text);
    block->refs.store(1, std::memory_order_relaxed);
    block->length = length;
    block->capacity = length;
    block->bytes = &block->text[0];
    block->destroy = _destroyString;
    block_ = block;
}

Utf8Array::Utf8Array(Utf8RawData data, unsigned length, void (*release)(void*)) : block_(nullptr) {
    if (!data)
        return;
    ExternalBlock* block;
    try {
        block = new ExternalBlock;
    } catch (...) {
        // Taking over means the buffer is ours to free whatever happens.
        if (release)
            release(data);
        throw;
    }
    data[length] = '\0';
    block->refs.store(1, std::memory_order_relaxed);
    block->length = length;
    block->capacity = length;
    block->bytes = data;
    block->destroy = _destroyExternal;
    block->release = release;
    block_ = block;
}

Utf8Array& Utf8Array::operator=(const Utf8Array& other) noexcept {
    if (other.block_)
        other.block_->refs.fetch_add(1, std::memory_order_relaxed);
    if (block_)
        release(block_);
    block_ = other.block_;
    return *this;
}

Utf8Array& Utf8Array::operator=(Utf8Array&& other) noexcept {
    if (this != &other) {
        if (block_)
            release(block_);
        block_ = other.block_;
        other.block_ = nullptr;
    }
    return *this;
}

void Utf8Array::release(buffer_block* block) noexcept {
    if (block->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
        block->destroy(block);
}

void Utf8Array::assign(const char* bytes, unsigned length) {
    if (length == 0)
        return;
    buffer_block* block = _allocate(length);
    std::memcpy(block->bytes, bytes, length);
    block->bytes[length] = '\0';
    block->length = length;
    block_ = block;
}

void Utf8Array::clear() noexcept {
    if (block_)
        release(block_);
    block_ = nullptr;
}

void Utf8Array::allocate(unsigned bytes) {
    if (bytes <= capacity() && block_ && block_->refs.load(std::memory_order_acquire) == 1)
        return;
    const unsigned length = this->length();
    buffer_block* block = _allocate(std::max(bytes, length));
    std::memcpy(block->bytes, data(), length);
    block->bytes[length] = '\0';
    block->length = length;
    if (block_)
        release(block_);
    block_ = block;
}

char* Utf8Array::make_room(unsigned at, unsigned removed, std::size_t inserted) {
    const unsigned old = length();
    const unsigned kept = old - removed;
    const unsigned length = _checkedLength(kept + inserted);
    const unsigned tail = old - at - removed;
    if (block_ && block_->refs.load(std::memory_order_acquire) == 1 && length <= block_->capacity) {
        char* bytes = block_->bytes;
        std::memmove(bytes + at + inserted, bytes + at + removed, tail);
        bytes[length] = '\0';
        block_->length = length;
        return bytes + at;
    }
    // Growing by appending should not copy the whole text every time.
    std::size_t capacity = length;
    if (length > old && old > 0) {
        capacity =
            std::max<std::size_t>(length, std::min<std::size_t>(2ull * old, length + (1u << 20)));
        capacity = std::min<std::size_t>(capacity, std::numeric_limits<unsigned>::max() - 1);
    }
    buffer_block* block = _allocate(static_cast<unsigned>(capacity));
    std::memcpy(block->bytes, data(), at);
    std::memcpy(block->bytes + at + inserted, data() + at + removed, tail);
    block->bytes[length] = '\0';
    block->length = length;
    if (block_)
        release(block_);
    block_ = block;
    return block->bytes + at;
}

Utf8Array::iterator Utf8Array::insert_bytes(unsigned at, const char* bytes, std::size_t length) {
    if (length && block_ && _within(bytes, block_->bytes, block_->bytes + block_->capacity)) {
        // Inserting part of this very text: take a copy before the bytes move.
        const std::string copy(bytes, length);
        return insert_bytes(at, copy.data(), copy.size());
    }
    char* room = make_room(at, 0, length);
    if (length)
        std::memcpy(room, bytes, length);
    return iterator(room, data() + this->length(), this);
}

unsigned Utf8Array::offset_of(const char* where, const char* function, int line) const {
    if (!where || !_within(where, data(), data() + length())) {
        internal::utf8::raise_utf8(_invalidIterator, _source, line, function);
    }
    return static_cast<unsigned>(where - data());
}

unsigned Utf8Array::offset_of(const iterator& where, const char* function, int line) const {
    if (where.owner() != this) {
        internal::utf8::raise_utf8(_invalidIterator, _source, line, function);
    }
    return offset_of(where.position(), function, line);
}

void Utf8Array::push_back(const Utf8Char& c) {
    char* room = make_room(length(), 0, c.length());
    std::memcpy(room, c.c_str(), c.length());
}

Utf8Array::iterator Utf8Array::insert(iterator where, const Utf8Char& c) {
    return insert_bytes(offset_of(where, __PRETTY_FUNCTION__, __LINE__), c.c_str(), c.length());
}

const char* Utf8Array::update_at(const char* where, const Utf8Char& c) {
    const unsigned at = offset_of(where, __PRETTY_FUNCTION__, __LINE__);
    unsigned removed = 0;
    if (at < length()) {
        // A byte that opens no sequence is replaced on its own.
        removed = std::max(1u, internal::utf8::num_utf8_chars(data()[at]));
        removed = std::min(removed, length() - at);
    }
    char* room = make_room(at, removed, c.length());
    std::memcpy(room, c.c_str(), c.length());
    return room;
}

std::pair<const char*, const char*> Utf8Array::range(const_iterator first,
                                                     const_iterator last) const {
    if (first.owner() != this || last.owner() != this ||
        !_within(first.position(), data(), data() + length()) ||
        !_within(last.position(), first.position(), data() + length())) {
        internal::utf8::raise_utf8(_invalidIterator, _source, __LINE__, __PRETTY_FUNCTION__);
    }
    return std::make_pair(first.position(), last.position());
}

const char* Utf8Array::find_start_of_last_char(const char* bytes, unsigned length,
                                               bool complete) const {
    if (!bytes || length == 0)
        return nullptr;
    const char* end = bytes + length;
    const char* p = end - 1;
    while (p > bytes && internal::utf8::is_continuation(*p) &&
           end - p < int(Utf8Char::max_length)) {
        --p;
    }
    const unsigned n = internal::utf8::num_utf8_chars(*p);
    if (n == 0) {
        if (complete) {
            internal::utf8::raise_utf8("Utf8Array has invalid buffer", _source, __LINE__,
                                       __PRETTY_FUNCTION__);
        }
        return nullptr;
    }
    if (complete && n != static_cast<unsigned>(end - p)) {
        internal::utf8::raise_utf8("Utf8Array has invalid buffer", _source, __LINE__,
                                   __PRETTY_FUNCTION__);
    }
    return p;
}

bool Utf8Array::operator==(const Utf8Array& other) const noexcept {
    return block_ == other.block_ ||
           (length() == other.length() && std::memcmp(data(), other.data(), length()) == 0);
}

std::ostream& operator<<(std::ostream& out, const Utf8Array& text) {
    return out.write(text.data(), text.length());
}

}  // namespace Tamtk
