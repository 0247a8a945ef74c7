#include "NetToolkit/Rfc2047.h"

#include <iterator>
#include <ostream>

namespace Tamnet {

std::string encodeRfc2047(const char* charset, const char* data, unsigned int length,
                          Rfc2047Encoding encoding) {
    std::string word;
    encodeRfc2047(charset, data, data + length, std::back_inserter(word), encoding);
    return word;
}

void appendFoldedRfc2047(std::string& out, const char* charset, const char* data,
                         std::size_t length, Rfc2047Encoding encoding) {
    const char* const end = data + length;
    const char* piece = data;
    do {
        const char* pieceEnd =
            static_cast<std::size_t>(end - piece) > FoldedWordBytes ? piece + FoldedWordBytes : end;
        if (piece != data) {
            out += '\t';
        }
        encodeRfc2047(charset, piece, pieceEnd, std::back_inserter(out), encoding);
        out += '\n';
        piece = pieceEnd;
    } while (piece < end);
}

std::ostream& encodeRfc2047(std::ostream& out, const char* charset, const char* data,
                            unsigned int length, Rfc2047Encoding encoding) {
    encodeRfc2047(charset, data, data + length, internal::ostream_writer(out), encoding);
    return out;
}

}  // namespace Tamnet
