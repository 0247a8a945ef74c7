#include "NetToolkit/Base64Decode.h"

#include "NetToolkit/Base64.h"

namespace Tamnet {

namespace {

// The value of each digit, 0xFF for every other byte.
struct DigitValues {
    unsigned char value[256];
    constexpr DigitValues() : value() {
        for (unsigned c = 0; c < 256; ++c) {
            value[c] = 0xFF;
        }
        for (unsigned d = 0; d < 64; ++d) {
            value[static_cast<unsigned char>(internal::rfc2045::Base64Table[d])] =
                static_cast<unsigned char>(d);
        }
    }
};
constexpr DigitValues _digits{};

}  // namespace

bool unbase64(const char* text, std::size_t length, std::string& out) {
    std::size_t end = length;
    for (int pads = 0; pads < 2 && end > 0 && text[end - 1] == '='; ++pads) {
        --end;
    }
    if (end % 4 == 1) {
        return false;
    }
    const std::size_t start = out.size();
    out.reserve(start + end / 4 * 3 + 2);
    unsigned bits = 0;
    int count = 0;
    for (std::size_t i = 0; i < end; ++i) {
        const unsigned d = _digits.value[static_cast<unsigned char>(text[i])];
        if (d > 63) {
            out.resize(start);
            return false;
        }
        bits = ((bits << 6) | d) & 0xFFFFFF;
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return true;
}

}  // namespace Tamnet
