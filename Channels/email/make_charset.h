#pragma once

#include <boost/shared_ptr.hpp>

#include "Toolkit/Utf8Array.h"

namespace Osk {
namespace EmailChannel {

// Text converted to a mail's charset: not NUL-terminated, may hold NUL bytes.
// For UTF-8 output `bytes` points into the source Utf8Array (no copy) and is
// valid only while that array lives unchanged.
struct CharsetString {
    boost::shared_ptr<const char> bytes;
    unsigned length;
};

// The all-ones limit means "no limit".
constexpr unsigned int noLimit = ~0u;

// Converts `text` (cut to its first `limit` characters) from UTF-8 to
// `charset`. Characters the charset cannot represent become a black square,
// or vanish when even that cannot be represented.
CharsetString make_charset(const char* charset, const Tamtk::Utf8Array& text, unsigned int limit);

}  // namespace EmailChannel
}  // namespace Osk
