#pragma once

#include <boost/shared_array.hpp>
#include <string>

#include "Toolkit/Export.h"

namespace Tamtk {

// Text of an exception. Short texts live in an inline buffer so that building
// and copying an exception does not allocate; longer ones go to one heap array
// that copies share instead of duplicating.
class TAMTK_API ExceptionString {
public:
    static constexpr unsigned inline_size = 256;

    ExceptionString() noexcept;
    ExceptionString(const char* text);  // NOLINT: implicit on purpose, texts are passed as literals
    ExceptionString(const char* text, unsigned length);
    ExceptionString(const std::string& text);  // NOLINT
    ExceptionString(const ExceptionString& other) noexcept;
    ExceptionString& operator=(const ExceptionString& other) noexcept;

    // Stores [text, text + length). A null text makes an empty string.
    void create_string(const char* text, unsigned length) noexcept;
    void copy(const ExceptionString& other) noexcept;

    // Null only for a string that was never filled.
    const char* c_str() const noexcept { return text_; }
    unsigned length() const noexcept { return length_; }
    bool empty() const noexcept { return length_ == 0; }
    // True when the text lives on the heap (longer than the inline buffer holds).
    bool on_heap() const noexcept { return heap_.get() != nullptr; }

private:
    char inline_[inline_size];
    const char* text_;
    boost::shared_array<char> heap_;
    unsigned length_;
};

}  // namespace Tamtk
