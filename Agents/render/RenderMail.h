#pragma once

// A mail as the channel built it, made readable: what a mail client would
// show, without a mail client.

#include <string>

namespace Osk {
namespace EmailAgents {

// The header fields of `message` unfolded, their encoded words decoded to
// UTF-8; an empty line; the body, its Base64 undone and its text converted
// from the charset of Content-Type to UTF-8. A body that does not decode or
// convert is shown as it was sent, after a line that says so.
std::string renderMail(const std::string& message);

}  // namespace EmailAgents
}  // namespace Osk
