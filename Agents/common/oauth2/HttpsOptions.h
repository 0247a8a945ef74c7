#pragma once

// The libcurl options every HTTPS request of an OAuth2 agent shares (to a
// token endpoint, to Microsoft Graph): where, how long, and whom to trust.

#include <curl/curl.h>

#include <string>

#include "Agents/common/oauth2/OAuth2Settings.h"

namespace Osk {
namespace EmailAgents {

// URL, https only (http too with allowPlaintextAuth), the timeout, no
// signals, the peer check and the CA file of `context`.
void setHttpsOptions(CURL* curl, const std::string& url, const OAuth2Context& context);

}  // namespace EmailAgents
}  // namespace Osk
