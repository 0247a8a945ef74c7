#include "Agents/common/oauth2/OAuth2Curl.h"

namespace Osk {
namespace EmailAgents {

void setOAuth2Login(CURL* curl, const OAuth2Settings& settings, const std::string& token) {
    curl_easy_setopt(curl, CURLOPT_USERNAME, settings.username.c_str());
    curl_easy_setopt(curl, CURLOPT_XOAUTH2_BEARER, token.c_str());
    curl_easy_setopt(
        curl, CURLOPT_LOGIN_OPTIONS,
        settings.mechanism == OAuth2Mechanism::XOAuth2 ? "AUTH=XOAUTH2" : "AUTH=OAUTHBEARER");
}

}  // namespace EmailAgents
}  // namespace Osk
