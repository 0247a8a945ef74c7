#include "Agents/smtp/SmtpSession.h"

#include <curl/curl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>

#include "Agents/common/AgentException.h"
#include "Agents/common/oauth2/OAuth2Curl.h"
#include "Agents/common/oauth2/OAuth2Exceptions.h"
#include "Agents/common/oauth2/TokenCache.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/smtp";

struct Upload {
    const std::string* data;
    std::size_t offset;
};

size_t _read(char* buffer, size_t size, size_t count, void* userdata) {
    Upload* up = static_cast<Upload*>(userdata);
    const std::size_t left = up->data->size() - up->offset;
    const std::size_t n = std::min(left, size * count);
    std::memcpy(buffer, up->data->data() + up->offset, n);
    up->offset += n;
    return n;
}

int _trace(CURL*, curl_infotype type, char* data, size_t size, void* userdata) {
    Transcript* t = static_cast<Transcript*>(userdata);
    if (type == CURLINFO_HEADER_OUT) {
        t->sent(data, size);
    } else if (type == CURLINFO_HEADER_IN) {
        t->received(data, size);
    }
    return 0;
}

int _progress(void* userdata, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    const std::atomic<bool>* abort = static_cast<const std::atomic<bool>*>(userdata);
    return abort && abort->load() ? 1 : 0;
}

// libcurl greets with the URL's path; without one it would say "localhost",
// which some servers refuse. This machine's name is what mail servers expect.
std::string _urlWithEhloName(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t slash = url.find('/', scheme + 3);
    if (slash != std::string::npos && slash + 1 < url.size()) {
        return url;
    }
    char host[256] = {0};
    if (gethostname(host, sizeof host - 1) != 0) {
        return url;
    }
    for (const char* p = host; *p; ++p) {
        const char c = *p;
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                        (c >= '0' && c <= '9') || c == '-' || c == '.';
        if (!ok) {
            return url;
        }
    }
    if (host[0] == '\0') {
        return url;
    }
    return (slash == std::string::npos ? url : url.substr(0, slash)) + "/" + host;
}

void _replace(std::string& text, const std::string& secret) {
    if (secret.empty()) {
        return;
    }
    std::size_t pos = 0;
    while ((pos = text.find(secret, pos)) != std::string::npos) {
        text.replace(pos, secret.size(), "***");
        pos += 3;
    }
}

// Failures that no retry mends until the operator changes something.
bool _isConfigurationFault(CURLcode rc) {
    return rc == CURLE_USE_SSL_FAILED || rc == CURLE_PEER_FAILED_VERIFICATION ||
           rc == CURLE_SSL_CACERT_BADFILE;
}

// What the operator should know about a failure beyond libcurl's own words.
std::string _explain(CURLcode rc, const SmtpSettings& settings) {
    if (rc == CURLE_USE_SSL_FAILED) {
        std::string text = " (the server does not offer STARTTLS";
        if (settings.tlsForCredentials()) {
            text +=
                "; the user name and password are sent only over an encrypted connection, so "
                "nothing was sent; allow_plaintext_auth=yes permits authentication in clear on "
                "a trusted test network";
        }
        return text + ")";
    }
    if (rc == CURLE_PEER_FAILED_VERIFICATION || rc == CURLE_SSL_CACERT_BADFILE) {
        return " (the server's certificate did not verify; check the parameters ca_file and "
               "verify_peer)";
    }
    if (rc == CURLE_LOGIN_DENIED && settings.oauth2.enabled) {
        return " (the relay refused the OAuth2 token, a freshly fetched one too; check that the "
               "application may send as this mailbox, and oauth2_mechanism)";
    }
    return "";
}

bool _isConnectionLoss(int code) {
    return code == 421;  // the server is closing the connection
}

std::string _redact(const SmtpSettings& settings, std::string text) {
    // The longer secret first, so that a user name inside the password does
    // not leave the rest of the password readable.
    if (settings.password.size() >= settings.username.size()) {
        _replace(text, settings.password);
        _replace(text, settings.username);
    } else {
        _replace(text, settings.username);
        _replace(text, settings.password);
    }
    return text;
}

// What a delivery and a probe share: the relay, the EHLO name, TLS, the
// credentials and the waits for connecting and for each reply.
void _setTransport(CURL* curl, const SmtpSettings& settings, const std::string& relay) {
    const std::string url = _urlWithEhloName(relay);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    const StartTls level = settings.effectiveStartTls();
    curl_easy_setopt(curl, CURLOPT_USE_SSL,
                     level == StartTls::No    ? CURLUSESSL_NONE
                     : level == StartTls::Try ? CURLUSESSL_TRY
                                              : CURLUSESSL_ALL);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, settings.verifyPeer ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, settings.verifyPeer ? 2L : 0L);
    if (!settings.caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, settings.caFile.c_str());
    }
    if (settings.tlsMinVersion != 0) {
        curl_easy_setopt(curl, CURLOPT_SSLVERSION, settings.tlsMinVersion);
    }
    if (!settings.clientCertificate.empty()) {
        curl_easy_setopt(curl, CURLOPT_SSLCERT, settings.clientCertificate.c_str());
        curl_easy_setopt(curl, CURLOPT_SSLKEY, settings.clientKey.c_str());
    }
    // Under OAuth2 the user name goes with each token (_run).
    if (!settings.username.empty() && !settings.oauth2.enabled) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, settings.username.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, settings.password.c_str());
    }
    // `timeout` bounds every wait: connecting, each reply, a stalled upload,
    // and the whole transaction, so a server that answers a byte at a time
    // cannot hold a message for longer either.
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, settings.timeoutMs);
    curl_easy_setopt(curl, CURLOPT_SERVER_RESPONSE_TIMEOUT, (settings.timeoutMs + 999) / 1000);
}

// One libcurl run; under OAuth2 with the agent's token, and when the relay
// refuses it, once more on a new connection with a fresh one (`again`
// readies the handle's own state for that). False when the relay refused the
// fresh token too. Throws what fetching a token throws.
bool _run(CURL* curl, const SmtpSettings& settings, TokenCache* tokens,
          const std::function<void()>& again, CURLcode& rc) {
    if (!tokens) {
        rc = curl_easy_perform(curl);
        return true;
    }
    bool first = true;
    return tokens->signIn([&](const std::string& token) {
        if (!first) {
            again();
            curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
        }
        first = false;
        setOAuth2Login(curl, settings.oauth2, token);
        rc = curl_easy_perform(curl);
        return !signInRefused(rc);
    });
}

// How far a probe got: the last command it sent (its first word only: an
// AUTH line carries the credentials).
struct ProbeTrace {
    std::string command;
};

int _probeTrace(CURL*, curl_infotype type, char* data, size_t size, void* userdata) {
    ProbeTrace* trace = static_cast<ProbeTrace*>(userdata);
    if (type == CURLINFO_HEADER_OUT) {
        const std::string line(data, size);
        trace->command = line.substr(0, line.find_first_of(" \r\n"));
    }
    return 0;
}

// The step a failed probe stopped at, for the operator.
std::string _probeStep(CURLcode rc, const ProbeTrace& trace, bool connected) {
    if (!connected) {
        return "connecting";
    }
    if (rc == CURLE_SSL_CONNECT_ERROR || _isConfigurationFault(rc)) {
        return rc == CURLE_USE_SSL_FAILED ? "STARTTLS" : "TLS";
    }
    if (rc == CURLE_LOGIN_DENIED || trace.command == "AUTH") {
        return "signing in (AUTH)";
    }
    return trace.command.empty() ? "the greeting" : trace.command;
}

}  // namespace

// libcurl's global state is set up once and never torn down: the host may use
// libcurl itself, and the agent stays loaded until the process ends.
void SmtpSession::initialise() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            TAMTK_THROW(AgentException, _source, "SMTP agent: libcurl cannot be initialised");
        }
    });
}

std::string toWireFormat(const char* message) {
    std::string out;
    const std::size_t n = std::strlen(message);
    out.reserve(n + n / 32 + 2);
    for (std::size_t i = 0; i < n; ++i) {
        const char c = message[i];
        if (c == '\r') {
            out += "\r\n";
            if (i + 1 < n && message[i + 1] == '\n') {
                ++i;
            }
        } else if (c == '\n') {
            out += "\r\n";
        } else {
            out += c;
        }
    }
    return out;
}

SmtpSession::SmtpSession(const SmtpSettings& settings, const std::string& relay,
                         const std::atomic<bool>* abort, TokenCache* tokens)
    : settings_(settings), relay_(relay), abort_(abort), tokens_(tokens), curl_(nullptr) {
    initialise();
    open();
}

SmtpSession::~SmtpSession() {
    drop();
}

void SmtpSession::open() {
    curl_ = curl_easy_init();
    if (!curl_) {
        TAMTK_THROW(AgentException, _source, "SMTP agent: libcurl cannot create a handle");
    }
    _setTransport(curl_, settings_, relay_);
    curl_easy_setopt(curl_, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl_, CURLOPT_READFUNCTION, _read);
    const long seconds = (settings_.timeoutMs + 999) / 1000;
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, settings_.timeoutMs);
    curl_easy_setopt(curl_, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl_, CURLOPT_LOW_SPEED_TIME, seconds);
    // Refused recipients are reported one by one (see judge) instead of
    // failing the whole message.
#if LIBCURL_VERSION_NUM >= 0x080200
    curl_easy_setopt(curl_, CURLOPT_MAIL_RCPT_ALLOWFAILS, 1L);
#else
    curl_easy_setopt(curl_, CURLOPT_MAIL_RCPT_ALLLOWFAILS, 1L);
#endif
    curl_easy_setopt(curl_, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl_, CURLOPT_DEBUGFUNCTION, _trace);
    curl_easy_setopt(curl_, CURLOPT_DEBUGDATA, &transcript_);
    curl_easy_setopt(curl_, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl_, CURLOPT_XFERINFOFUNCTION, _progress);
    curl_easy_setopt(curl_, CURLOPT_XFERINFODATA, abort_);
    curl_easy_setopt(curl_, CURLOPT_FORBID_REUSE, settings_.reuseConnection ? 0L : 1L);
}

std::string SmtpSession::probe(const SmtpSettings& settings, const std::string& relay,
                               TokenCache* tokens) {
    initialise();
    CURL* curl = curl_easy_init();
    if (!curl) {
        TAMTK_THROW(AgentException, _source, "SMTP agent: libcurl cannot create a handle");
    }
    _setTransport(curl, settings, relay);
    // Connecting is everything up to the first mail: the greeting, EHLO,
    // STARTTLS and AUTH as the settings ask.
    curl_easy_setopt(curl, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, settings.timeoutMs);
    ProbeTrace trace;
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, _probeTrace);
    curl_easy_setopt(curl, CURLOPT_DEBUGDATA, &trace);
    char error[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    CURLcode rc = CURLE_OK;
    std::string problem;
    try {
        _run(
            curl, settings, tokens, [&] { trace = ProbeTrace(); }, rc);
    } catch (const OAuth2Exception& e) {
        curl_easy_cleanup(curl);
        return "relay " + relay + " fails at fetching a fresh OAuth2 token: " + e.what();
    }
    if (rc == CURLE_OK) {
        // A connect-only handle closes without a word: say goodbye.
        std::size_t sent = 0;
        curl_easy_send(curl, "QUIT\r\n", 6, &sent);
    } else {
        curl_off_t connected = 0;
        curl_easy_getinfo(curl, CURLINFO_CONNECT_TIME_T, &connected);
        problem = "relay " + relay + " fails at " + _probeStep(rc, trace, connected != 0) + ": " +
                  curl_easy_strerror(rc) + (error[0] != '\0' ? std::string(": ") + error : "") +
                  _explain(rc, settings);
    }
    curl_easy_cleanup(curl);
    return _redact(settings, problem);
}

// libcurl would send QUIT and wait for its answer as long as `timeout`
// allows, holding up the end of the process (or the next message) when the
// server hangs. No transaction is open here, so the connection is simply
// dropped: with the socket shut down, QUIT fails at once.
void SmtpSession::drop() {
    if (!curl_) {
        return;
    }
    curl_socket_t socket = CURL_SOCKET_BAD;
    if (curl_easy_getinfo(curl_, CURLINFO_ACTIVESOCKET, &socket) == CURLE_OK &&
        socket != CURL_SOCKET_BAD) {
        shutdown(socket, SHUT_RDWR);
    }
    curl_easy_cleanup(curl_);
    curl_ = nullptr;
}

std::string SmtpSession::redact(std::string text) const {
    return _redact(settings_, std::move(text));
}

Attempt SmtpSession::send(const std::string& from, const std::vector<std::string>& to,
                          const std::string& wire) {
    Attempt attempt = perform(from, to, wire, false);
    // A connection kept from an earlier message may have been closed by the
    // server meanwhile; if it broke before the server answered MAIL FROM,
    // nothing was sent and one try on a new connection is safe.
    if (attempt.connectionFailure && attempt.connections == 0 && transcript_.mail().code == 0 &&
        !(abort_ && abort_->load())) {
        attempt = perform(from, to, wire, true);
    }
    return attempt;
}

Attempt SmtpSession::perform(const std::string& from, const std::vector<std::string>& to,
                             const std::string& wire, bool freshConnection) {
    if (!curl_) {
        open();  // the last connection failed and was dropped
    }
    transcript_.reset();
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> rcpts(nullptr, curl_slist_free_all);
    for (const std::string& r : to) {
        curl_slist* next = curl_slist_append(rcpts.get(), ("<" + r + ">").c_str());
        if (!next) {
            TAMTK_THROW(AgentException, _source, "SMTP agent: out of memory");
        }
        rcpts.release();
        rcpts.reset(next);
    }
    const std::string sender = "<" + from + ">";
    Upload upload{&wire, 0};
    char error[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl_, CURLOPT_MAIL_FROM, sender.c_str());
    curl_easy_setopt(curl_, CURLOPT_MAIL_RCPT, rcpts.get());
    curl_easy_setopt(curl_, CURLOPT_READDATA, &upload);
    curl_easy_setopt(curl_, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(wire.size()));
    curl_easy_setopt(curl_, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl_, CURLOPT_FRESH_CONNECT, freshConnection ? 1L : 0L);

    // The handle must not keep pointers into this frame, whether the
    // transaction ends or a token cannot be had.
    struct Unset {
        CURL* const& curl;  // null once the connection was dropped
        ~Unset() {
            if (curl) {
                curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
                curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, nullptr);
                curl_easy_setopt(curl, CURLOPT_READDATA, nullptr);
            }
        }
    } unset{curl_};
    CURLcode rc = CURLE_OK;
    const bool signedIn = _run(
        curl_, settings_, tokens_,
        [&] {
            transcript_.reset();
            upload.offset = 0;
        },
        rc);

    long connections = 0;
    curl_easy_getinfo(curl_, CURLINFO_NUM_CONNECTS, &connections);

    std::string curlText;
    if (rc != CURLE_OK) {
        curlText = curl_easy_strerror(rc);
        if (error[0] != '\0') {
            curlText += std::string(": ") + error;
        }
        curlText += _explain(rc, settings_);
    }
    Attempt attempt = judge(rc, to, curlText);
    // A relay that refuses a fresh token will refuse the next one too.
    attempt.configurationFault = _isConfigurationFault(rc) || !signedIn;
    attempt.connections = connections;
    attempt.relay = relay_;
    if (rc != CURLE_OK) {
        drop();
    }
    return attempt;
}

Attempt SmtpSession::judge(int rc, const std::vector<std::string>& to,
                           const std::string& curlText) const {
    const Transcript& t = transcript_;
    Attempt attempt;
    auto all = [&](Fate fate, const std::string& reason) {
        attempt.recipients.clear();
        for (const std::string& r : to) {
            attempt.recipients.push_back({r, fate, fate == Fate::Delivered ? "" : reason});
        }
    };
    auto fateOf = [](int code) { return code >= 500 ? Fate::Permanent : Fate::Temporary; };
    auto linkBroke = [&]() {
        std::string reason = curlText.empty() ? "the connection was lost" : curlText;
        if (t.last().code >= 400) {
            reason += " (server: " + t.last().text + ")";
        }
        return redact(reason);
    };

    // The server refused the sender, or the dialogue never got that far
    // (no connection, TLS, authentication): the same for every recipient.
    if (t.mail().code == 0 || t.mail().code >= 400) {
        if (rc == CURLE_OK) {  // nothing to learn from the trace: trust libcurl
            all(Fate::Delivered, "");
            return attempt;
        }
        if (t.mail().code >= 400) {
            all(fateOf(t.mail().code), redact(t.mail().text));
            attempt.connectionFailure = _isConnectionLoss(t.mail().code);
        } else {
            all(Fate::Temporary, linkBroke());
            attempt.connectionFailure = true;
        }
        return attempt;
    }

    // Each recipient has its own answer; the message goes to those accepted.
    std::vector<std::size_t> accepted;
    for (std::size_t i = 0; i < to.size(); ++i) {
        const Reply* reply = i < t.recipients().size() ? &t.recipients()[i].second : nullptr;
        if (reply && reply->code >= 400) {
            attempt.recipients.push_back({to[i], fateOf(reply->code), redact(reply->text)});
            attempt.connectionFailure = attempt.connectionFailure || _isConnectionLoss(reply->code);
        } else {
            attempt.recipients.push_back({to[i], Fate::Delivered, ""});
            accepted.push_back(i);
        }
    }
    if (accepted.empty()) {
        return attempt;
    }
    auto acceptedGet = [&](Fate fate, const std::string& reason) {
        for (std::size_t i : accepted) {
            attempt.recipients[i].fate = fate;
            attempt.recipients[i].reason = fate == Fate::Delivered ? "" : reason;
        }
    };
    const int end = t.endOfData().code;
    if (end >= 200 && end < 300) {
        return attempt;  // delivered to the accepted ones
    }
    if (end >= 400) {
        acceptedGet(fateOf(end), redact(t.endOfData().text));
        attempt.connectionFailure = _isConnectionLoss(end);
        return attempt;
    }
    if (t.data().code >= 400) {
        acceptedGet(fateOf(t.data().code), redact(t.data().text));
        attempt.connectionFailure = _isConnectionLoss(t.data().code);
        return attempt;
    }
    if (rc == CURLE_OK) {
        return attempt;
    }
    // The link broke somewhere between the recipients and the final answer.
    attempt.possiblyDelivered = t.messageSent();
    acceptedGet(
        Fate::Temporary,
        linkBroke() +
            (attempt.possiblyDelivered ? "; the server may have taken the message already" : ""));
    attempt.connectionFailure = true;
    return attempt;
}

}  // namespace EmailAgents
}  // namespace Osk
