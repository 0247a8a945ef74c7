#include "Agents/common/oauth2/HttpsOptions.h"

namespace Osk {
namespace EmailAgents {

void setHttpsOptions(CURL* c, const std::string& url, const OAuth2Context& context) {
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, context.allowPlaintextAuth ? "https,http" : "https");
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, context.timeoutMs);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, context.verifyPeer ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, context.verifyPeer ? 2L : 0L);
    if (!context.caFile.empty()) {
        curl_easy_setopt(c, CURLOPT_CAINFO, context.caFile.c_str());
    }
}

}  // namespace EmailAgents
}  // namespace Osk
