// OAuth2 access tokens: every source against a real token endpoint
// (tests/support/token_endpoint.py), the tokens checked by a real SMTP
// server (oauth2_smtp_auth.py) and, where it can run, by Postfix with
// Dovecot (oauth2_relay.py), which also takes the SMTP agent's mail. The
// agent's use of its token (refusals, lifetimes, a refused client) is tested
// through osk-host (tests/Programs/osk-host/host_oauth2_test.py).

#include <curl/curl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "Agents/common/oauth2/Jwt.h"
#include "Agents/common/oauth2/OAuth2Curl.h"
#include "Agents/common/oauth2/OAuth2Exceptions.h"
#include "Agents/common/oauth2/SecretFiles.h"
#include "Agents/common/oauth2/TokenSources.h"
#include "Agents/smtp/SmtpAgent.h"
#include "OAuth2TestServers.h"

using namespace Osk::EmailAgents;
using namespace AgentTest;

namespace {

const char* const clientSecret = "client-secret-7f3a";
const char* const firstRefreshToken = "refresh-token-first-91c2";

enum class Kind { None, Config, Temporary, Param, Warning };
typedef std::chrono::steady_clock Clock;

// Signs in to the SMTP server at `url` and sends NOOP.
CURLcode signInAt(const std::string& url, const OAuth2Settings& settings,
                  const std::string& token) {
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "NOOP");
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION,
        +[](char*, std::size_t size, std::size_t n, void*) { return size * n; });
    setOAuth2Login(curl, settings, token);
    const CURLcode rc = curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    return rc;
}

long long expiryOf(const std::string& token) {
    const std::size_t from = token.find('.') + 1;
    const std::string claims = fromBase64Url(token.substr(from, token.find('.', from) - from));
    const std::size_t at = claims.find("\"exp\": ");
    return at == std::string::npos ? 0 : std::atoll(claims.c_str() + at + 7);
}

class OAuth2 : public ::testing::Test {
protected:
    OAuth2() {
        secretFile_ = dir_.write("client.secret", std::string(clientSecret) + "\n");
        refreshFile_ = dir_.write("refresh.token", std::string(firstRefreshToken) + "\n");
        chmod(secretFile_.c_str(), 0600);
        chmod(refreshFile_.c_str(), 0600);
    }

    void startEndpoint(int lifetime = 3600, bool tls = true, int port = 0) {
        endpoint_.reset();
        TokenEndpoint::Options o;
        o.tls = tls;
        o.lifetime = lifetime;
        o.port = port;
        o.secretFile = secretFile_;
        o.refreshToken = firstRefreshToken;
        endpoint_.reset(new TokenEndpoint(o));
    }

    Params params(const std::string& source) const {
        Params p = {{"auth", "oauth2"}, {"username", "alice@example.com"}};
        if (source == "command") {
            p["oauth2_token_command"] = dir_ / "token-command";
            return p;
        }
        p["oauth2_token_url"] = endpoint_ ? endpoint_->url() : "https://127.0.0.1:1/token";
        p["oauth2_client_id"] = "test-client";
        p["oauth2_scope"] = "mail";
        if (source == "secret") {
            p["oauth2_client_secret_file"] = secretFile_;
        } else if (source == "certificate") {
            p["oauth2_client_certificate"] = OAuth2Keys::get().clientCert;
            p["oauth2_client_key"] = OAuth2Keys::get().clientKey;
        } else {
            p["oauth2_refresh_token_file"] = refreshFile_;
        }
        return p;
    }

    static OAuth2Settings settings(const Params& params, long timeoutMs = 5000) {
        OAuth2Context context;
        context.caFile = Certificate::get().cert;
        context.timeoutMs = timeoutMs;
        context.allowPlaintextAuth = true;
        return readOAuth2Settings("test agent", params, context);
    }

    // The family `op` throws; every text is checked for secrets on the way.
    template <class F>
    Kind outcome(const F& op, std::string* text = nullptr) {
        std::string message;
        Kind kind = Kind::None;
        try {
            op();
        } catch (const OAuth2ConfigException& e) {
            kind = Kind::Config, message = e.what();
        } catch (const OAuth2TemporaryException& e) {
            kind = Kind::Temporary, message = e.what();
        } catch (const AgentParamException& e) {
            kind = Kind::Param, message = e.what();
        } catch (const CheckWarningException& e) {
            kind = Kind::Warning, message = e.what();
        }
        // Access tokens and assertions are JWTs: base64url JSON starts "eyJ".
        const std::string current = readFile(refreshFile_);
        for (const std::string& secret : {std::string(clientSecret), std::string(firstRefreshToken),
                                          current.substr(0, current.find('\n')), std::string("eyJ"),
                                          std::string("PRIVATE KEY")}) {
            EXPECT_FALSE(contains(message, secret)) << message;
        }
        if (text) {
            *text = message;
        }
        return kind;
    }

    TempDir dir_;
    std::string secretFile_, refreshFile_;
    std::unique_ptr<TokenEndpoint> endpoint_;
};

TEST_F(OAuth2, EachSourceGivesATokenTheMailServerTakes) {
    startEndpoint();
    PythonServer smtp(oauth2Script("oauth2_smtp_auth.py"),
                      {"--public-key", OAuth2Keys::get().publicKey, "--state", endpoint_->state()});
    const std::string smtpUrl = "smtp://127.0.0.1:" + std::to_string(smtp.ports().at(0));
    const std::string fetched = TokenCache(makeTokenSource(settings(params("secret")))).get();
    writeFile(dir_ / "token-command", "#!/bin/sh\necho " + fetched + "\n");
    chmod((dir_ / "token-command").c_str(), 0700);

    const struct {
        const char* source;
        const char* mechanism;
        const char* request;  // what the endpoint saw, nullptr: nothing
    } rows[] = {{"secret", "XOAUTH2", "client_credentials 200"},
                {"certificate", "OAUTHBEARER", "client_credentials 200"},
                {"refresh", "XOAUTH2", "refresh_token 200"},
                {"command", "OAUTHBEARER", nullptr}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.source);
        Params p = params(row.source);
        p["oauth2_mechanism"] = row.mechanism;
        const OAuth2Settings s = settings(p);
        TokenCache cache(makeTokenSource(s));
        const std::size_t before = endpoint_->requests().size();
        int attempts = 0;
        EXPECT_TRUE(cache.signIn([&](const std::string& token) {
            ++attempts;
            return !signInRefused(signInAt(smtpUrl, s, token));
        }));
        EXPECT_EQ(attempts, 1);
        const std::vector<std::string> requests = endpoint_->requests();
        ASSERT_EQ(requests.size(), before + (row.request ? 1 : 0));
        if (row.request) {
            EXPECT_EQ(requests.back(), row.request);
        }
    }
    // The endpoint rotated the refresh token; the file holds its successor.
    EXPECT_NE(readSecretFile(refreshFile_, "test"), firstRefreshToken);
}

TEST_F(OAuth2, TokensAreRenewedShortlyBeforeTheyExpireAndNotPerCall) {
    const int lifetime = 3;
    startEndpoint(lifetime);
    TokenCache cache(makeTokenSource(settings(params("secret"))));
    std::map<std::string, double> firstSeen;  // token -> seconds from the start
    const Clock::time_point start = Clock::now();
    int calls = 0;
    for (double t = 0; t < 5; t = std::chrono::duration<double>(Clock::now() - start).count()) {
        const std::string token = cache.get();
        ++calls;
        firstSeen.emplace(token, t);
        EXPECT_GT(expiryOf(token), std::time(nullptr));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_GT(calls, 100);
    ASSERT_EQ(endpoint_->requests().size(), 2u);
    ASSERT_EQ(firstSeen.size(), 2u);
    double renewedAt = 0;
    for (const auto& entry : firstSeen) {
        renewedAt = std::max(renewedAt, entry.second);
    }
    // A tenth of the lifetime before its end: 2.7 s, well before 3 s.
    EXPECT_GT(renewedAt, 0.8 * lifetime);
    EXPECT_LT(renewedAt, 0.96 * lifetime);
}

TEST_F(OAuth2, EndpointRefusalsAreConfigurationFaultsAndOutagesTemporary) {
    startEndpoint();
    const struct {
        const char* control;
        Kind kind;
        std::vector<std::string> quoted;
    } rows[] = {
        {R"({"status": 401, "error": "invalid_client", "error_description": "AADSTS7000215"})",
         Kind::Config,
         {"HTTP 401", "\"invalid_client\"", "\"AADSTS7000215\""}},
        {R"({"status": 400, "error": "invalid_grant", "error_description": "token revoked"})",
         Kind::Config,
         {"\"invalid_grant\"", "\"token revoked\""}},
        {R"({"status": 400, "error": "unauthorized_client"})",
         Kind::Config,
         {"\"unauthorized_client\""}},
        {R"({"status": 400, "error": "invalid_scope", "error_description": "bad\nscope"})",
         Kind::Config,
         {"\"invalid_scope\"", "\"bad scope\""}},
        {R"({"status": 500, "error": "server_error"})", Kind::Temporary, {"HTTP 500"}},
        {R"({"status": 429, "error": "slow_down"})", Kind::Temporary, {"HTTP 429"}},
        {R"({"status": 200})", Kind::Temporary, {"without an access token"}},
        {R"({"delay": 3})", Kind::Temporary, {"cannot be reached"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.control);
        endpoint_->control(row.control);
        std::string text;
        EXPECT_EQ(
            outcome([&] { TokenCache(makeTokenSource(settings(params("refresh"), 1000))).get(); },
                    &text),
            row.kind);
        EXPECT_EQ(missingFrom(text, row.quoted), "") << text;
        EXPECT_TRUE(contains(text, endpoint_->url())) << text;
    }
}

// An endpoint down is temporary: the mail waits; once it is back, parallel
// drain workers share one fresh token.
TEST_F(OAuth2, SpoolWorkersShareOneTokenOnceTheEndpointIsBack) {
    startEndpoint();
    PythonServer smtp(oauth2Script("smtp_server.py"),
                      {"--oauth2", OAuth2Keys::get().publicKey, endpoint_->state()});
    Params p = params("secret");
    p.insert({{"url", "smtp://127.0.0.1:" + std::to_string(smtp.ports().at(0))},
              {"starttls", "no"},
              {"allow_plaintext_auth", "yes"},
              {"ca_file", Certificate::get().cert},
              {"spool", dir_ / "spool"},
              {"connections", "4"}});
    SmtpSettings settings = SmtpSettings::fromParams(p);
    settings.retryFirst = settings.retryMax = std::chrono::milliseconds(600000);
    SmtpAgent agent(settings);
    endpoint_->control(R"({"status": 503})");
    for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(contains(
            messageOf<KeptException>([&] { agent.send("a@b", {"c@d"}, "Subject: x\n\nx\n"); }),
            "HTTP 503"));
    }
    endpoint_->control("{}");
    EXPECT_EQ(agent.drain(std::chrono::seconds(60)).delivered, 40u);
    // Asked once while down (then the mail went straight to the spool), once after.
    EXPECT_EQ(endpoint_->requests(),
              std::vector<std::string>({"client_credentials 503", "client_credentials 200"}));
}

TEST_F(OAuth2, TheEndpointIsTrustedOnlyAsTheAgentSays) {
    const struct {
        bool tls;
        bool allowPlaintext;
        bool withCaFile;
        bool verifyPeer;
        Kind kind;
    } rows[] = {
        {false, false, true, true, Kind::Param},      // http without allow_plaintext_auth
        {false, true, true, true, Kind::None},        // http on a trusted test network
        {true, false, false, true, Kind::Temporary},  // certificate of an unknown CA
        {true, false, false, false, Kind::None},      // verify_peer=no
        {true, false, true, true, Kind::None},
    };
    for (const auto& row : rows) {
        startEndpoint(3600, row.tls);
        OAuth2Context context;
        context.allowPlaintextAuth = row.allowPlaintext;
        context.caFile = row.withCaFile ? Certificate::get().cert : "";
        context.verifyPeer = row.verifyPeer;
        EXPECT_EQ(outcome([&] {
                      TokenCache(makeTokenSource(
                                     readOAuth2Settings("test agent", params("secret"), context)))
                          .get();
                  }),
                  row.kind)
            << endpoint_->url();
    }
}

TEST_F(OAuth2, SettingsTakeProviderDefaultsAndRefuseAmbiguity) {
    const struct {
        Params changes;       // "" removes the parameter
        bool graph;           // the caller asks for Microsoft Graph's scope
        const char* problem;  // the reader's complaint; nullptr: none
        const char* url = nullptr;
        const char* scope = nullptr;
    } rows[] = {
        {{{"oauth2_token_url", ""},
          {"oauth2_scope", ""},
          {"oauth2_provider", "microsoft365"},
          {"oauth2_tenant", "contoso.onmicrosoft.com"}},
         false,
         nullptr,
         "https://login.microsoftonline.com/contoso.onmicrosoft.com/oauth2/v2.0/token",
         "https://outlook.office365.com/.default"},
        {{{"oauth2_token_url", ""},
          {"oauth2_scope", ""},
          {"oauth2_provider", "microsoft365"},
          {"oauth2_tenant", "contoso"}},
         true,
         nullptr,
         "https://login.microsoftonline.com/contoso/oauth2/v2.0/token",
         "https://graph.microsoft.com/.default"},
        {{{"oauth2_token_url", ""}, {"oauth2_scope", ""}, {"oauth2_provider", "google"}},
         false,
         nullptr,
         "https://oauth2.googleapis.com/token",
         "https://mail.google.com/"},
        {{{"oauth2_provider", "google"}}, false, nullptr, "https://127.0.0.1:1/token", "mail"},
        {{{"oauth2_token_url", ""}, {"oauth2_provider", "microsoft365"}},
         false,
         "\"oauth2_tenant\" is required"},
        {{{"oauth2_tenant", "contoso"}}, false, "without oauth2_provider=microsoft365"},
        {{{"oauth2_token_url", "http://127.0.0.1:1/token"}}, true, "unencrypted"},
        {{{"oauth2_token_url", "https://user:pw@example.com/token"}}, false, "user name"},
        {{{"oauth2_token_url", "ftp://example.com/"}}, false, "expected https://"},
        {{{"oauth2_token_url", ""}}, false, "is required unless oauth2_provider"},
        {{{"oauth2_scope", ""}}, false, "\"oauth2_scope\" is required"},
        {{{"oauth2_token_command", "/bin/true"}}, false, "the only token source"},
        {{{"oauth2_refresh_token_file", "/x"}, {"oauth2_client_key", "/k"}},
         false,
         "a refresh token is sent"},
        {{{"oauth2_client_certificate", "/c"}, {"oauth2_client_secret_file", ""}},
         false,
         "\"oauth2_client_key\" is required"},
        {{{"oauth2_client_key", "/k"}}, false, "is given with a client certificate"},
        {{{"oauth2_client_secret_file", ""}}, false, "without a token source"},
        {{{"username", ""}}, false, "\"username\" is required"},
        {{{"auth", "password"}}, false, "while auth is not \"oauth2\""},
        {{{"oauth2_mechanism", "PLAIN"}}, false, "expected one of XOAUTH2, OAUTHBEARER"},
    };
    for (const auto& row : rows) {
        Params p = params("secret");
        for (const auto& change : row.changes) {
            if (change.second.empty()) {
                p.erase(change.first);
            } else {
                p[change.first] = change.second;
            }
        }
        SCOPED_TRACE(row.changes.begin()->first + "=" + row.changes.begin()->second);
        OAuth2Context context;
        if (row.graph) {
            context.microsoft365Scope = "https://graph.microsoft.com/.default";
        }
        OAuth2Settings s;
        std::string text;
        EXPECT_EQ(outcome([&] { s = readOAuth2Settings("test agent", p, context); }, &text),
                  row.problem ? Kind::Param : Kind::None);
        if (row.problem) {
            EXPECT_TRUE(contains(text, row.problem)) << text;
        } else {
            EXPECT_EQ(s.tokenUrl, row.url);
            EXPECT_EQ(s.scope, row.scope);
        }
    }
}

TEST_F(OAuth2, CheckFindsUnreadableFilesAndWarnsOfOpenSecrets) {
    const std::string key = OAuth2Keys::get().clientKey;
    const std::string openKey = dir_.write("open.key", readFile(key));
    chmod(openKey.c_str(), 0644);
    chmod(key.c_str(), 0600);
    const struct {
        const char* source;
        const char* name;
        std::string value;
        Kind kind;
    } rows[] = {
        {"secret", nullptr, "", Kind::None},
        {"refresh", "oauth2_refresh_token_file", dir_ / "missing", Kind::Config},
        {"secret", "oauth2_client_secret_file", dir_.write("empty", ""), Kind::Config},
        {"certificate", nullptr, "", Kind::None},
        {"certificate", "oauth2_client_key", openKey, Kind::Warning},
        {"certificate", "oauth2_client_key", OAuth2Keys::get().signingKey, Kind::Config},
        {"command", "oauth2_token_command", "no-such-program-here --flag", Kind::Config},
    };
    for (const auto& row : rows) {
        Params p = params(row.source);
        if (row.name) {
            p[row.name] = row.value;
        }
        SCOPED_TRACE(row.value);
        std::string text;
        EXPECT_EQ(outcome([&] { checkOAuth2Settings(settings(p)); }, &text), row.kind) << text;
        if (row.kind != Kind::None) {
            EXPECT_TRUE(contains(text, row.value.substr(0, row.value.find(' ')))) << text;
        }
    }
}

TEST_F(OAuth2, CommandFailuresNameTheCommandAndQuoteIt) {
    const std::string pids = dir_ / "pids";
    const struct {
        const char* script;
        Kind kind;
        std::vector<std::string> parts;
    } rows[] = {
        {"echo ' tok-en '", Kind::None, {}},
        {"echo 'vault sealed' >&2; echo more >&2; exit 3",
         Kind::Temporary,
         {"exit status 3", ": \"vault sealed\""}},
        {"exit 0", Kind::Temporary, {"printed no token", "nothing to its standard error"}},
        {"kill -9 $$", Kind::Temporary, {"killed by signal 9"}},
        {"echo $$ > $0.pids; sleep 30 & echo $! >> $0.pids; wait",
         Kind::Temporary,
         {"did not finish within 1 s"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.script);
        const std::string script =
            dir_.write("cmd", std::string("#!/bin/sh\n") + row.script + "\n");
        chmod(script.c_str(), 0700);
        Params p = params("command");
        p["oauth2_token_command"] = script + "  arg";
        std::string token, text;
        EXPECT_EQ(
            outcome([&] { token = makeTokenSource(settings(p, 1000))->fetch().value; }, &text),
            row.kind);
        EXPECT_EQ(missingFrom(text, row.parts), "") << text;
        if (row.kind == Kind::None) {
            EXPECT_EQ(token, " tok-en ");
        } else {
            EXPECT_TRUE(contains(text, "\"" + script + " arg\"")) << text;
        }
    }
    // The timed-out command and what it started were stopped.
    std::istringstream started(readFile(dir_ / "cmd.pids"));
    int count = 0;
    for (std::string pid; started >> pid; ++count) {
        EXPECT_TRUE(
            waitFor([&] { return !contains(readFile("/proc/" + pid + "/stat"), ") S"); }, 5))
            << pid;
    }
    EXPECT_EQ(count, 2);
}

// A process rotating the refresh token is killed at random moments; the
// file must always hold a token the endpoint still takes.
TEST_F(OAuth2, KillsDuringRotationNeverLoseTheRefreshToken) {
    startEndpoint();
    const OAuth2Settings s = settings(params("refresh"));
    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<int> pause(0, 50000);
    for (int round = 0; round < 50; ++round) {
        const pid_t child = fork();
        if (child == 0) {
            for (;;) {
                try {
                    makeTokenSource(s)->fetch();
                } catch (...) {
                    _exit(3);
                }
            }
        }
        usleep(pause(random));
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the rotating process failed in round " << round;
        std::string text;
        ASSERT_EQ(outcome([&] { makeTokenSource(s)->fetch(); }, &text), Kind::None)
            << "round " << round << ": " << text;
    }
    EXPECT_GT(endpoint_->requests().size(), 60u);  // the children rotated too
}

TEST_F(OAuth2, PostfixWithDovecotTakesTheTokensOfItsUser) {
    TempDir relayDir;
    PythonServer relay(oauth2Script("oauth2_relay.py"),
                       {"--dir", relayDir.path(), "--public-key", OAuth2Keys::get().publicKey});
    if (!relay.unavailable().empty()) {
        GTEST_SKIP() << "no private Postfix with Dovecot here: " << relay.unavailable();
    }
    startEndpoint();
    const struct {
        const char* mechanism;
        int listener;  // 1: the one that offers XOAUTH2 only
        const char* user;
        bool accepted;
    } rows[] = {{"XOAUTH2", 0, "alice@example.com", true},
                {"OAUTHBEARER", 0, "alice@example.com", true},
                {"XOAUTH2", 1, "alice@example.com", true},
                {"XOAUTH2", 0, "mallory@example.com", false},
                {"OAUTHBEARER", 0, "mallory@example.com", false}};
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(row.mechanism) + " " + row.user);
        Params p = params("secret");
        p["oauth2_mechanism"] = row.mechanism;
        p["username"] = row.user;
        const OAuth2Settings s = settings(p);
        const CURLcode rc =
            signInAt("smtp://127.0.0.1:" + std::to_string(relay.ports().at(row.listener)), s,
                     TokenCache(makeTokenSource(s)).get());
        EXPECT_EQ(rc, row.accepted ? CURLE_OK : CURLE_LOGIN_DENIED);
    }
    // The agent itself fetches its token and signs in: the mail arrives.
    Params p = params("secret");
    p.insert({{"url", "smtp://127.0.0.1:" + std::to_string(relay.ports().at(0))},
              {"starttls", "no"},
              {"allow_plaintext_auth", "yes"},
              {"ca_file", Certificate::get().cert}});
    SmtpAgent(SmtpSettings::fromParams(p))
        .send("alice@example.com", {"bob@example.com"}, "Subject: agent\n\nby the agent\n");
    EXPECT_TRUE(
        waitFor([&] { return listDir(relayDir.path() + "/mail/bob/new").size() == 1; }, 20));
}

}  // namespace
