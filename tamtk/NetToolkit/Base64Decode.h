#pragma once

// Base64 (RFC 2045) text back to its bytes, for readers of mail: strict,
// since a digit out of place means the text is not what its writer sent.

#include <cstddef>
#include <string>

#include "Toolkit/Export.h"

namespace Tamnet {

// Appends the bytes of the Base64 text [text, text + length) to `out` and
// returns true. The pad characters at the end may be there or not. Any
// other character, a pad inside the text or a last group of one digit
// (which cannot hold a byte) returns false and leaves `out` as it was.
TAMTK_API bool unbase64(const char* text, std::size_t length, std::string& out);

}  // namespace Tamnet
