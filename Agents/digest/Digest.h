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

}  // namespace EmailAgents
}  // namespace Osk
