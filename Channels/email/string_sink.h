#pragma once

#include <streambuf>
#include <string>

namespace Osk {
namespace internal {

// A stream buffer that appends whatever is written through it to a string
// the caller owns. Text written with an std::ostream over it lands in its
// final place at once, without the copy an ostringstream makes when its
// text is taken out, nor that stream's own growing buffer.
class string_sink : public std::streambuf {
public:
    explicit string_sink(std::string& text) : text_(text) {}

protected:
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            text_.push_back(traits_type::to_char_type(c));
        }
        return traits_type::not_eof(c);
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        text_.append(s, static_cast<std::string::size_type>(n));
        return n;
    }

private:
    std::string& text_;
};

}  // namespace internal
}  // namespace Osk
