// The --probe part of --check: does each SMTP relay of the agent answer?
// libcurl connects as the agent would (TLS as configured) and stops after
// the greeting and EHLO, then says QUIT. No credentials are sent and no
// mail.

#include <curl/curl.h>

#include <cstdlib>
#include <mutex>
#include <sstream>
#include <vector>

#include "Programs/osk-host/ConfigCheck.h"

namespace Osk {
namespace internal {
namespace {

std::string _param(const std::map<std::string, std::string>& params, const char* name,
                   const std::string& otherwise) {
    auto found = params.find(name);
    return found == params.end() ? otherwise : found->second;
}

std::vector<std::string> _words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

// An empty text when the relay answered, else what went wrong.
std::string _ask(const std::string& url, const std::map<std::string, std::string>& params) {
    CURL* curl = curl_easy_init();
    if (curl == nullptr) {
        return "libcurl could not start";
    }
    char detail[CURL_ERROR_SIZE] = "";
    const std::string starttls = _param(params, "starttls", "try");
    const bool credentials = params.count("username") > 0;
    const long seconds = std::strtol(_param(params, "timeout", "30").c_str(), nullptr, 10);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, detail);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, seconds > 0 ? seconds : 30L);
    // The agent holds a link that carries credentials to STARTTLS.
    curl_easy_setopt(curl, CURLOPT_USE_SSL,
                     starttls == "no"                        ? CURLUSESSL_NONE
                     : starttls == "required" || credentials ? CURLUSESSL_ALL
                                                             : CURLUSESSL_TRY);
    if (_param(params, "verify_peer", "yes") == "no") {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    }
    const std::string caFile = _param(params, "ca_file", "");
    if (!caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
    }
    const CURLcode result = curl_easy_perform(curl);
    if (result == CURLE_OK) {
        // A connect-only handle closes without a word; say goodbye.
        std::size_t sent = 0;
        curl_easy_send(curl, "QUIT\r\n", 6, &sent);
    }
    curl_easy_cleanup(curl);
    if (result == CURLE_OK) {
        return std::string();
    }
    return std::string(curl_easy_strerror(result)) +
           (detail[0] != '\0' ? std::string(": ") + detail : "");
}

}  // namespace

void probeRelays(const std::map<std::string, std::string>& params, CheckFindings& findings) {
    const std::vector<std::string> urls = _words(_param(params, "url", ""));
    if (urls.empty()) {
        findings.ok("nothing to probe: the agent has no url parameter");
        return;
    }
    static std::once_flag curlReady;
    std::call_once(curlReady, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    std::vector<std::string> silent;
    for (const std::string& url : urls) {
        const std::string problem = _ask(url, params);
        if (problem.empty()) {
            findings.ok("the relay " + url + " answers");
        } else {
            silent.push_back("the relay " + url + " does not answer: " + problem);
        }
    }
    // One relay that answers still delivers; none means no mail goes out.
    for (const std::string& text : silent) {
        if (silent.size() == urls.size()) {
            findings.error(text);
        } else {
            findings.warning(text);
        }
    }
}

}  // namespace internal
}  // namespace Osk
