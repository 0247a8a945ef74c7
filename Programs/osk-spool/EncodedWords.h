#pragma once

// Header values as a person should read them: RFC 2047 encoded words
// ("=?ISO-8859-1?Q?St=F6rung?=") decoded and converted to UTF-8. The channel
// writes them; the spool tool shows them.

#include <string>

namespace Osk {

// Decodes every well-formed encoded word of `value` (folding already
// removed) into UTF-8; the blanks between two adjacent encoded words vanish,
// as RFC 2047 says. A word in an unknown charset, or one that does not
// decode, stays as written.
std::string decodeEncodedWords(const std::string& value);

// `text` made safe to print on one line of a terminal: control characters
// become spaces and bytes that are not UTF-8 become U+FFFD.
std::string printableUtf8(const std::string& text);
// `text` with every byte that is not UTF-8 replaced by U+FFFD.
std::string validUtf8(const std::string& text);

}  // namespace Osk
