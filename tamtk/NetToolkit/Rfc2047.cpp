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

std::ostream& encodeRfc2047(std::ostream& out, const char* charset, const char* data,
                            unsigned int length, Rfc2047Encoding encoding) {
    encodeRfc2047(charset, data, data + length, internal::ostream_writer(out), encoding);
    return out;
}

}  // namespace Tamnet
