#pragma once

// One request to an OAuth2 token endpoint (RFC 6749 section 3.2): a form
// POSTed over https, a JSON answer.

#include <string>
#include <utility>
#include <vector>

#include "Agents/common/oauth2/OAuth2Settings.h"

namespace Osk {
namespace EmailAgents {

struct TokenResponse {
    std::string accessToken;
    long expiresIn = 0;        // seconds; 0 when the endpoint did not say
    std::string refreshToken;  // a successor to the refresh token sent; often none
};

typedef std::vector<std::pair<std::string, std::string>> Form;

// POSTs `form` to settings.tokenUrl, checking the endpoint's certificate
// as the context says, within its timeout. Throws OAuth2ConfigException when
// the endpoint refuses the request (400/401 and other 4xx but 408 and 429),
// quoting its "error" and "error_description", and OAuth2TemporaryException
// when it cannot be reached, takes too long, answers 408, 429 or 5xx, or its
// answer holds no access token.
TokenResponse requestToken(const OAuth2Settings& settings, const Form& form);

}  // namespace EmailAgents
}  // namespace Osk
