#pragma once

#include <map>
#include <string>
#include <vector>

#include "NetToolkit/EmailAddr.h"
#include "Toolkit/Utf8Array.h"

namespace Osk {
namespace EmailChannel {

// Limits in characters, counted before conversion.
extern const unsigned int limitFromName;  // display name and each extra header value
extern const unsigned int limitSubject;
// Boundary for a multipart form; the mails built here are single-part.
extern const char* const boundary;

// The complete text of a single-part plain-text MIME mail: encoded-word
// headers, a Base64 body in `charset`, line feeds only. `time` is seconds
// since the epoch. `thread`, when not empty, is the Message-ID ("<id@domain>",
// written as it is) that the mail follows up in References and In-Reply-To.
// Throws std::out_of_range for an empty recipient list.
std::string buildEmail(const char* charset, long time, const Tamtk::Utf8Array& fromName,
                       const Tamnet::EmailAddr& from, const std::vector<Tamnet::EmailAddr>& to,
                       const Tamtk::Utf8Array& subject, const Tamtk::Utf8Array& body,
                       std::map<std::string, std::string> extraHeaders,
                       const std::string& thread = std::string());

}  // namespace EmailChannel
}  // namespace Osk
