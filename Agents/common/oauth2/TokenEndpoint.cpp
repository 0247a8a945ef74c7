#include "Agents/common/oauth2/TokenEndpoint.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Agents/common/oauth2/HttpsOptions.h"
#include "Agents/common/oauth2/OAuth2Exceptions.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/oauth2/TokenEndpoint";
// A token answer is a few kilobytes; a larger one is not a token endpoint's.
const std::size_t _maxAnswer = 1 << 20;
const std::size_t _maxQuote = 300;

struct CurlFree {
    void operator()(CURL* p) const { curl_easy_cleanup(p); }
    void operator()(char* p) const { curl_free(p); }
};

std::size_t _collect(char* data, std::size_t size, std::size_t count, void* answer) {
    std::string& text = *static_cast<std::string*>(answer);
    if (text.size() + size * count > _maxAnswer) {
        return 0;
    }
    text.append(data, size * count);
    return size * count;
}

std::string _encode(CURL* curl, const Form& form) {
    std::string body;
    for (const auto& field : form) {
        std::unique_ptr<char, CurlFree> value(
            curl_easy_escape(curl, field.second.data(), static_cast<int>(field.second.size())));
        body += (body.empty() ? "" : "&") + field.first + "=" + value.get();
    }
    return body;
}

// A value of the endpoint's answer as it may appear in a report: one line,
// printable, not too long.
std::string _quote(const nlohmann::json& answer, const char* name) {
    if (!answer.is_object() || !answer.contains(name) || !answer[name].is_string()) {
        return "";
    }
    std::string text;
    for (char c : answer[name].get<std::string>().substr(0, _maxQuote)) {
        text += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
    return text;
}

long _expiresIn(const nlohmann::json& value) {
    if (value.is_number()) {
        return value.get<long>();
    }
    // Some endpoints send the number as a string.
    return value.is_string() ? std::atol(value.get<std::string>().c_str()) : 0;
}

}  // namespace

TokenResponse requestToken(const OAuth2Settings& settings, const Form& form) {
    const OAuth2Context& context = settings.context;
    const std::string& url = settings.tokenUrl;
    std::unique_ptr<CURL, CurlFree> curl(curl_easy_init());
    if (!curl) {
        TAMTK_THROW(OAuth2TemporaryException, _source, "cannot set up a request to " << url);
    }
    CURL* c = curl.get();
    const std::string body = _encode(c, form);
    std::string answer;
    char error[CURL_ERROR_SIZE] = "";
    setHttpsOptions(c, url, context);
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, _collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &answer);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        curl_slist_append(nullptr, "Accept: application/json"), curl_slist_free_all);
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());

    const CURLcode rc = curl_easy_perform(c);
    if (rc != CURLE_OK) {
        TAMTK_THROW(OAuth2TemporaryException, _source,
                    "the OAuth2 token endpoint " << url << " cannot be reached: "
                                                 << (*error ? error : curl_easy_strerror(rc)));
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    const nlohmann::json json = nlohmann::json::parse(answer, nullptr, false);
    if (status == 200) {
        const std::string token =
            json.is_object() && json.contains("access_token") && json["access_token"].is_string()
                ? json["access_token"].get<std::string>()
                : "";
        if (token.empty()) {
            TAMTK_THROW(OAuth2TemporaryException, _source,
                        "the OAuth2 token endpoint " << url << " answered without an access token");
        }
        TokenResponse response;
        response.accessToken = token;
        response.expiresIn = json.contains("expires_in") ? _expiresIn(json["expires_in"]) : 0;
        if (json.contains("refresh_token") && json["refresh_token"].is_string()) {
            response.refreshToken = json["refresh_token"].get<std::string>();
        }
        return response;
    }
    const std::string code = _quote(json, "error");
    const std::string description = _quote(json, "error_description");
    std::ostringstream why;
    why << "the OAuth2 token endpoint " << url << " answered HTTP " << status;
    if (!code.empty()) {
        why << ", error \"" << code << "\"";
    }
    if (!description.empty()) {
        why << ": \"" << description << "\"";
    }
    const bool refused = status >= 400 && status < 500 && status != 408 && status != 429;
    if (refused) {
        TAMTK_THROW(OAuth2ConfigException, _source,
                    why.str() << "; check the agent's OAuth2 client, secret, grant and scope");
    }
    TAMTK_THROW(OAuth2TemporaryException, _source, why.str());
}

}  // namespace EmailAgents
}  // namespace Osk
