#pragma once

// Header text as people read it: the RFC 2047 encoded words of a header
// value ("=?ISO-8859-1?Q?St=F6rung?=") decoded and converted to UTF-8.

#include <string>

#include "Toolkit/Export.h"

namespace Tamnet {

// Decodes the encoded words of `value` (unfolded) into UTF-8.
//
// A word is "=?charset?B?text?=" or "=?charset?Q?text?=", B and Q in either
// case, with no blank in its text; an RFC 2231 language after "*" in the
// charset is ignored. Besides "=XX", Q reads "= X", the blank-filled form
// the channel writes for bytes below 0x10. The blanks between two adjacent
// words vanish, and adjacent words of one charset are converted together:
// a writer may cut a character between them.
//
// A word that does not decode (a bad digit, a truncated "=XX"), or a run of
// adjacent words whose charset iconv does not know or whose bytes are not
// text in it, stays as written, blanks and all: the reader sees what was
// sent rather than a guess. Text outside words is passed on as it is.
TAMTK_API std::string decodeRfc2047(const std::string& value);

}  // namespace Tamnet
