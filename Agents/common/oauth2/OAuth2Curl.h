#pragma once

// What an SMTP transport sets on its libcurl handle to sign in with a token.
// libcurl builds the SASL strings itself (XOAUTH2 or OAUTHBEARER); no
// CURLOPT_HTTPAUTH, which would make libcurl 7.88 pick OAUTHBEARER whatever
// the settings say.

#include <curl/curl.h>

#include <string>

#include "Agents/common/oauth2/OAuth2Settings.h"

namespace Osk {
namespace EmailAgents {

// User name, bearer token and "AUTH=XOAUTH2" or "AUTH=OAUTHBEARER".
void setOAuth2Login(CURL* curl, const OAuth2Settings& settings, const std::string& token);

// The server refused the sign-in. A refused XOAUTH2 ends at the server's 334
// challenge (with a JSON error) and OAUTHBEARER at 535; libcurl reports both
// as CURLE_LOGIN_DENIED.
inline bool signInRefused(CURLcode code) {
    return code == CURLE_LOGIN_DENIED;
}

}  // namespace EmailAgents
}  // namespace Osk
