#include "Agents/graph/GraphTransport.h"

#include <curl/curl.h>

#include <cctype>
#include <ctime>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "Agents/common/AgentException.h"
#include "Agents/common/oauth2/HttpsOptions.h"
#include "Agents/common/oauth2/OAuth2Exceptions.h"
#include "NetToolkit/Base64.h"
#include "NetToolkit/HeaderBlock.h"

namespace Osk {
namespace EmailAgents {

namespace {

typedef std::chrono::steady_clock Clock;
const char* const _source = "Agents/graph";
// Graph's error answers are short; more is not Graph's.
const std::size_t _maxAnswer = 64 * 1024;
const std::size_t _maxQuote = 300;

struct CurlFree {
    void operator()(CURL* p) const { curl_easy_cleanup(p); }
    void operator()(curl_slist* p) const { curl_slist_free_all(p); }
    void operator()(char* p) const { curl_free(p); }
};

struct Exchange {
    std::string answer;
    std::string retryAfter;
};

std::size_t _collect(char* data, std::size_t size, std::size_t count, void* exchange) {
    std::string& text = static_cast<Exchange*>(exchange)->answer;
    const std::size_t n = size * count;
    text.append(data, std::min(n, _maxAnswer - std::min(_maxAnswer, text.size())));
    return n;
}

std::size_t _header(char* data, std::size_t size, std::size_t count, void* exchange) {
    const std::size_t n = size * count;
    const std::string line(data, n);
    const std::string name = "retry-after:";
    if (line.size() > name.size() &&
        std::equal(name.begin(), name.end(), line.begin(), [](char a, char b) {
            return a == std::tolower(static_cast<unsigned char>(b));
        })) {
        std::string value = line.substr(name.size());
        const std::size_t first = value.find_first_not_of(" \t");
        const std::size_t last = value.find_last_not_of(" \t\r\n");
        static_cast<Exchange*>(exchange)->retryAfter =
            first == std::string::npos ? "" : value.substr(first, last - first + 1);
    }
    return n;
}

int _progress(void* abort, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const std::atomic<bool>* flag = static_cast<const std::atomic<bool>*>(abort);
    return flag && flag->load() ? 1 : 0;
}

// The MIME with CR LF line ends, as Graph wants it.
std::string _wire(const std::string& mime) {
    std::string wire;
    wire.reserve(mime.size() + mime.size() / 32 + 2);
    for (std::size_t i = 0; i < mime.size(); ++i) {
        if (mime[i] == '\n' && (i == 0 || mime[i - 1] != '\r')) {
            wire += '\r';
        }
        wire += mime[i];
    }
    return wire;
}

// What Graph said, from {"error":{"code":..,"message":..}}, fit for a report.
std::string _graphError(const std::string& answer) {
    const nlohmann::json json = nlohmann::json::parse(answer, nullptr, false);
    if (!json.is_object() || !json.contains("error") || !json["error"].is_object()) {
        return "";
    }
    std::string out;
    for (const char* field : {"code", "message"}) {
        const nlohmann::json& error = json["error"];
        if (error.contains(field) && error[field].is_string()) {
            std::string text = error[field].get<std::string>().substr(0, _maxQuote);
            for (char& c : text) {
                c = static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
            }
            out += std::string(out.empty() ? "" : ": ") + "\"" + text + "\"";
        }
    }
    return out;
}

Attempt _everyone(const std::vector<std::string>& to, Fate fate, const std::string& reason) {
    Attempt attempt;
    for (const std::string& address : to) {
        attempt.recipients.push_back({address, fate, fate == Fate::Delivered ? "" : reason});
    }
    return attempt;
}

std::string _lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// Whether `address` stands in `value` as a whole address: the characters
// around it cannot belong to one.
bool _names(const std::string& value, const std::string& address) {
    const auto inAddress = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) ||
               std::string(".-_+=@'%!#$&*/?^`{|}~").find(c) != std::string::npos;
    };
    for (std::size_t at = value.find(address); at != std::string::npos;
         at = value.find(address, at + 1)) {
        const std::size_t end = at + address.size();
        if ((at == 0 || !inAddress(value[at - 1])) &&
            (end == value.size() || !inAddress(value[end]))) {
            return true;
        }
    }
    return false;
}

}  // namespace

void GraphPause::hold(std::chrono::milliseconds pause) {
    const Clock::rep until = (Clock::now() + pause).time_since_epoch().count();
    Clock::rep seen = until_.load();
    while (seen < until && !until_.compare_exchange_weak(seen, until)) {
    }
}

std::chrono::milliseconds GraphPause::left() const {
    const Clock::time_point until{Clock::duration(until_.load())};
    const Clock::time_point now = Clock::now();
    return until > now ? std::chrono::ceil<std::chrono::milliseconds>(until - now)
                       : std::chrono::milliseconds(0);
}

std::vector<std::string> missingFromHeaders(const std::string& message,
                                            const std::vector<std::string>& to) {
    std::string listed;
    const Tamnet::HeaderBlock headers(message);
    for (const Tamnet::HeaderField& field : headers.fields()) {
        const std::string name = _lower(field.name);
        if (name == "to" || name == "cc") {
            listed += _lower(field.value) + "\n";
        }
    }
    std::vector<std::string> missing;
    for (const std::string& address : to) {
        if (!_names(listed, _lower(address))) {
            missing.push_back(address);
        }
    }
    return missing;
}

std::chrono::milliseconds retryAfter(const std::string& value) {
    if (value.empty()) {
        return std::chrono::milliseconds(0);
    }
    if (value.find_first_not_of("0123456789") == std::string::npos) {
        return std::chrono::seconds(std::stol(value.substr(0, 9)));
    }
    const time_t when = curl_getdate(value.c_str(), nullptr);
    const time_t now = std::time(nullptr);
    return when > now ? std::chrono::seconds(when - now) : std::chrono::seconds(0);
}

std::string sendMailUrl(const GraphSettings& settings, const std::string& mailbox) {
    std::unique_ptr<char, CurlFree> escaped(
        curl_easy_escape(nullptr, mailbox.data(), static_cast<int>(mailbox.size())));
    return settings.graphUrl + "/v1.0/users/" + escaped.get() + "/sendMail";
}

void GraphTransport::initialise() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            TAMTK_THROW(AgentException, _source, "Graph agent: libcurl cannot be initialised");
        }
    });
}

GraphTransport::GraphTransport(const GraphSettings& settings, TokenCache& tokens, GraphPause& pause,
                               const std::atomic<bool>* abort)
    : settings_(settings),
      tokens_(tokens),
      pause_(pause),
      abort_(abort),
      curl_(nullptr, curl_easy_cleanup) {
    initialise();
}

GraphTransport::Answer GraphTransport::post(const std::string& url, const std::string& token,
                                            const std::string& body) {
    Answer out;
    if (!curl_) {
        curl_.reset(curl_easy_init());
    }
    if (!curl_) {
        out.reason = "libcurl cannot create a handle";
        return out;
    }
    CURL* c = curl_.get();
    curl_easy_reset(c);  // keeps the connection
    Exchange exchange;
    char error[CURL_ERROR_SIZE] = "";
    const std::string authorization = "Authorization: Bearer " + token;
    curl_slist* list = curl_slist_append(nullptr, authorization.c_str());
    list = curl_slist_append(list, "Content-Type: text/plain");
    const std::unique_ptr<curl_slist, CurlFree> headers(list);
    setHttpsOptions(c, url, settings_.oauth2.context);  // Graph trusted as the token endpoint
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, _collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &exchange);
    curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, _header);
    curl_easy_setopt(c, CURLOPT_HEADERDATA, &exchange);
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, _progress);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, abort_);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
    const CURLcode rc = curl_easy_perform(c);
    curl_off_t sent = 0;
    curl_easy_getinfo(c, CURLINFO_SIZE_UPLOAD_T, &sent);
    out.uploaded = sent == static_cast<curl_off_t>(body.size());
    if (rc != CURLE_OK) {
        out.reason = *error ? error : curl_easy_strerror(rc);
        return out;
    }
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &out.status);
    out.retryAfter = retryAfter(exchange.retryAfter);
    const std::string said = _graphError(exchange.answer);
    out.reason = "Microsoft Graph answered HTTP " + std::to_string(out.status) +
                 (said.empty() ? "" : ", error " + said);
    return out;
}

Attempt GraphTransport::send(const std::string& from, const std::vector<std::string>& to,
                             const std::string& message) {
    const std::string url =
        sendMailUrl(settings_, settings_.mailbox.empty() ? from : settings_.mailbox);
    const std::chrono::milliseconds waiting = pause_.left();
    if (waiting.count() > 0) {
        Attempt attempt =
            _everyone(to, Fate::Temporary,
                      "Microsoft Graph asked for a pause of " +
                          std::to_string((waiting.count() + 999) / 1000) + " more seconds");
        attempt.connectionFailure = true;
        attempt.leastPause = waiting;
        attempt.relay = url;
        return attempt;
    }

    // Graph sends to the message's own To and Cc: an envelope recipient
    // missing there would never get the mail, whatever Graph answers.
    const std::vector<std::string> missing = missingFromHeaders(message, to);
    std::vector<std::string> listed;
    for (const std::string& address : to) {
        if (std::find(missing.begin(), missing.end(), address) == missing.end()) {
            listed.push_back(address);
        }
    }
    Attempt attempt = _everyone(missing, Fate::Permanent,
                                "not among the message's To and Cc addresses, the only ones "
                                "Microsoft Graph sends to");
    attempt.relay = url;
    const auto settle = [&](Fate fate, const std::string& reason) {
        const Attempt part = _everyone(listed, fate, reason);
        attempt.recipients.insert(attempt.recipients.end(), part.recipients.begin(),
                                  part.recipients.end());
        return attempt;
    };
    if (listed.empty()) {
        return attempt;
    }
    const std::string wire = _wire(message);
    if (wire.size() > graphMaxMime) {
        return settle(Fate::Permanent, "the message is " + std::to_string(wire.size()) +
                                           " bytes of MIME, more than the " +
                                           std::to_string(graphMaxMime) +
                                           " Microsoft Graph takes in one sendMail request");
    }

    std::string body;
    body.reserve(Tamnet::base64Length(wire.size()));
    Tamnet::base64(wire.begin(), wire.end(), std::back_inserter(body));
    Answer answer;
    for (int round = 0; round < 2; ++round) {
        std::string token;
        try {
            token = tokens_.get();
        } catch (const OAuth2ConfigException& e) {
            attempt.configurationFault = true;
            return settle(Fate::Temporary, e.what());
        } catch (const Tamtk::Exception& e) {
            attempt.connectionFailure = true;
            return settle(Fate::Temporary, e.what());
        }
        answer = post(url, token, body);
        ++attempt.connections;
        if (answer.status != 401) {
            break;
        }
        tokens_.invalidate(token);  // renewed once; a fresh token refused too is for the admin
    }
    const long s = answer.status;
    if (s >= 200 && s < 300) {
        return settle(Fate::Delivered, "");
    }
    if (s == 0 || s == 408 || s == 429 || s >= 500) {
        // Not sent, or Graph is busy: the whole agent waits (at least as
        // long as Graph asked).
        attempt.connectionFailure = true;
        attempt.possiblyDelivered = s == 0 && answer.uploaded;
        attempt.leastPause = answer.retryAfter;
        if (answer.retryAfter.count() > 0) {
            pause_.hold(answer.retryAfter);
        }
        return settle(Fate::Temporary, s == 0
                                           ? "Microsoft Graph cannot be reached: " + answer.reason
                                           : answer.reason);
    }
    if (s == 401) {
        attempt.configurationFault = true;
        return settle(Fate::Temporary, answer.reason +
                                           " to a fresh token too; check the app registration's "
                                           "Mail.Send permission and its admin consent");
    }
    return settle(Fate::Permanent, answer.reason);
}

}  // namespace EmailAgents
}  // namespace Osk
