#include "Toolkit/ExceptionString.h"

#include <cstring>
#include <new>

namespace Tamtk {

ExceptionString::ExceptionString() noexcept : text_(nullptr), length_(0) {
    inline_[0] = '\0';
}

ExceptionString::ExceptionString(const char* text) : ExceptionString() {
    create_string(text, text ? static_cast<unsigned>(std::strlen(text)) : 0);
}

ExceptionString::ExceptionString(const char* text, unsigned length) : ExceptionString() {
    create_string(text, length);
}

ExceptionString::ExceptionString(const std::string& text) : ExceptionString() {
    create_string(text.data(), static_cast<unsigned>(text.size()));
}

ExceptionString::ExceptionString(const ExceptionString& other) noexcept : ExceptionString() {
    copy(other);
}

ExceptionString& ExceptionString::operator=(const ExceptionString& other) noexcept {
    if (this != &other) {
        copy(other);
    }
    return *this;
}

void ExceptionString::create_string(const char* text, unsigned length) noexcept {
    heap_.reset();
    if (text == nullptr) {
        length = 0;
    }
    if (length < inline_size) {
        if (length) {
            std::memcpy(inline_, text, length);
        }
        inline_[length] = '\0';
        text_ = inline_;
        length_ = length;
        return;
    }
    char* heap = new (std::nothrow) char[length + 1];
    if (heap == nullptr) {
        // Out of memory while raising: keep what fits rather than fail.
        length = inline_size - 1;
        std::memcpy(inline_, text, length);
        inline_[length] = '\0';
        text_ = inline_;
        length_ = length;
        return;
    }
    std::memcpy(heap, text, length);
    heap[length] = '\0';
    heap_.reset(heap);
    text_ = heap;
    length_ = length;
}

void ExceptionString::copy(const ExceptionString& other) noexcept {
    length_ = other.length_;
    if (other.text_ == nullptr) {
        heap_.reset();
        text_ = nullptr;
        inline_[0] = '\0';
    } else if (other.heap_) {
        heap_ = other.heap_;
        text_ = other.text_;
    } else {
        heap_.reset();
        std::memcpy(inline_, other.inline_, other.length_ + 1);
        text_ = inline_;
    }
}

}  // namespace Tamtk
