#pragma once

// One mail that carries many: a MIME multipart/digest (RFC 2046 5.1.5) whose
// first part lists the alerts and whose other parts are the alerts
// themselves, each a message/rfc822 part holding the mail byte for byte.

#include <string>
#include <vector>

namespace Osk {
namespace EmailAgents {

// The digest of `mails` (complete mails, line feeds only), from the sender
// and to the recipients of the first. `time` is seconds since the epoch.
std::string buildDigest(const std::vector<std::string>& mails, long time,
                        const std::string& messageId);

// The unfolded value of the first header field `name` (any case) in the
// mail's header block; empty when there is none.
std::string headerValue(const std::string& mail, const char* name);

// A header value with its RFC 2047 encoded words decoded, in UTF-8. Bytes
// the word's charset does not know become U+FFFD.
std::string decodeWords(const std::string& value);

}  // namespace EmailAgents
}  // namespace Osk
