#include "Toolkit/Printable.h"

namespace Tamtk {

std::string escapeControls(const std::string& text) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else if (c == 0xc2 && i + 1 < text.size() &&
                   static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
            // U+0080..U+009F: terminals take some of them (CSI) as commands.
            const unsigned char code = static_cast<unsigned char>(text[++i]);
            out += "\\u00";
            out += hex[code >> 4];
            out += hex[code & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

}  // namespace Tamtk
