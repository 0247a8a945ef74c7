#pragma once

// The OAuth2 test servers of tests/support, driven from C++: the token
// endpoint, the aiosmtpd server that checks its tokens, and the private
// Postfix + Dovecot relay. Each runs as a child on Debian's Python and ends
// when its object does.

#include <sys/types.h>

#include <string>
#include <vector>

#include "AgentTestSupport.h"

namespace AgentTest {

// One of tests/support/*.py that prints "READY <port>..." (or "UNAVAILABLE
// <why>") and ends when its standard input closes.
class PythonServer {
public:
    PythonServer(const std::string& script, std::vector<std::string> args);
    // Closes its standard input and waits for it, so that it can clean up.
    ~PythonServer();
    PythonServer(const PythonServer&) = delete;
    PythonServer& operator=(const PythonServer&) = delete;

    // The words after READY: ports. Empty when it is unavailable.
    const std::vector<int>& ports() const { return ports_; }
    const std::string& unavailable() const { return unavailable_; }

private:
    void stop();

    pid_t pid_ = -1;
    int stdin_ = -1;
    std::vector<int> ports_;
    std::string unavailable_;
};

// The keys the servers and the clients share, made once per process: the
// endpoint's RSA signing key and its public half, and a client's RSA
// certificate and key registered with the endpoint.
struct OAuth2Keys {
    std::string signingKey, publicKey, clientCert, clientKey;
    static const OAuth2Keys& get();
};

// token_endpoint.py over TLS (Certificate::get()) or plain http, its state
// folder in a scratch directory.
class TokenEndpoint {
public:
    struct Options {
        bool tls = true;
        int lifetime = 3600;
        int port = 0;  // 0: any free one
        std::string secretFile, refreshToken, subject = "alice@example.com";
    };
    explicit TokenEndpoint(const Options& options);
    std::string url() const;
    int port() const { return server_.ports().at(0); }
    const std::string& state() const { return state_.path(); }
    // "<grant_type> <status>" per request so far.
    std::vector<std::string> requests() const;
    // Answers every request so from now on (token_endpoint.py's control.json).
    void control(const std::string& json) const;

private:
    TempDir state_;
    bool tls_;
    PythonServer server_;
};

std::string oauth2Script(const char* name);

}  // namespace AgentTest
