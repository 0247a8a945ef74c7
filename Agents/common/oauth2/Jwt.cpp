#include "Agents/common/oauth2/Jwt.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

namespace Osk {
namespace EmailAgents {

namespace {

// Nothing was said about the token's life: short enough that a refused one
// is soon replaced, long enough that it is not fetched per mail.
const std::chrono::seconds _unknownLifetime{300};

}  // namespace

std::string base64Url(const std::string& bytes) {
    std::vector<unsigned char> out(4 * ((bytes.size() + 2) / 3) + 1);
    const int n = EVP_EncodeBlock(out.data(), reinterpret_cast<const unsigned char*>(bytes.data()),
                                  static_cast<int>(bytes.size()));
    std::string text(out.begin(), out.begin() + n);
    while (!text.empty() && text.back() == '=') {
        text.pop_back();
    }
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
}

std::string fromBase64Url(const std::string& text) {
    std::string padded = text;
    for (char& c : padded) {
        if (c == '-' || c == '_') {
            c = c == '-' ? '+' : '/';
        } else if (!std::isalnum(static_cast<unsigned char>(c))) {
            return "";
        }
    }
    if (padded.size() % 4 == 1) {
        return "";
    }
    padded.append((4 - padded.size() % 4) % 4, '=');
    std::vector<unsigned char> out(padded.size() / 4 * 3 + 1);
    const int n = EVP_DecodeBlock(out.data(), reinterpret_cast<const unsigned char*>(padded.data()),
                                  static_cast<int>(padded.size()));
    // EVP_DecodeBlock counts each '=' as a zero byte.
    const int length = n - static_cast<int>(padded.size() - text.size());
    return length > 0 ? std::string(out.begin(), out.begin() + length) : "";
}

std::chrono::seconds tokenLifetime(const std::string& token, long expiresIn) {
    if (expiresIn > 0) {
        return std::chrono::seconds(expiresIn);
    }
    const std::size_t first = token.find('.');
    const std::size_t second = token.find('.', first + 1);
    if (first != std::string::npos && second != std::string::npos) {
        const nlohmann::json claims = nlohmann::json::parse(
            fromBase64Url(token.substr(first + 1, second - first - 1)), nullptr, false);
        if (claims.is_object() && claims.contains("exp") && claims["exp"].is_number()) {
            const long long left = claims["exp"].get<long long>() - std::time(nullptr);
            return std::chrono::seconds(std::max(1LL, left));
        }
    }
    return _unknownLifetime;
}

}  // namespace EmailAgents
}  // namespace Osk
