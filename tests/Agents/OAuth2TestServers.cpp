#include "OAuth2TestServers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <sstream>
#include <stdexcept>

namespace AgentTest {

std::string oauth2Script(const char* name) {
    return std::string(OAUTH2_SUPPORT_DIR) + "/" + name;
}

PythonServer::PythonServer(const std::string& script, std::vector<std::string> args) {
    args.insert(args.begin(), {"/usr/bin/python3", script});
    std::vector<char*> argv(args.size() + 1, nullptr);
    std::transform(args.begin(), args.end(), argv.begin(), [](std::string& a) { return &a[0]; });
    int in[2], out[2];
    const bool piped = pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0;
    if (!piped) {
        throw std::runtime_error("no pipes for " + script);
    }
    pid_ = fork();
    if (pid_ == 0) {
        dup2(in[0], 0);
        dup2(out[1], 1);
        execv(argv[0], argv.data());
        _exit(127);
    }
    const int rc = pid_ > 0 ? 0 : errno;
    close(in[0]);
    close(out[1]);
    stdin_ = in[1];
    // One line, READY or UNAVAILABLE; the pipe ending first is a failed start.
    std::string line;
    char c;
    while (rc == 0 && read(out[0], &c, 1) == 1 && c != '\n') {
        line += c;
    }
    close(out[0]);
    std::istringstream words(line);
    std::string word;
    words >> word;
    if (word == "READY") {
        for (int port; words >> port;) {
            ports_.push_back(port);
        }
    } else if (word == "UNAVAILABLE") {
        std::getline(words >> std::ws, unavailable_);
    } else {
        stop();
        throw std::runtime_error(script + " did not start: \"" + line + "\"");
    }
}

PythonServer::~PythonServer() {
    stop();
}

void PythonServer::stop() {
    if (stdin_ >= 0) {
        close(stdin_);
        stdin_ = -1;
    }
    if (pid_ > 0 && !waitFor([this] { return waitpid(pid_, nullptr, WNOHANG) == pid_; }, 10)) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    pid_ = -1;
}

const OAuth2Keys& OAuth2Keys::get() {
    static TempDir dir;
    static const OAuth2Keys keys = [] {
        OAuth2Keys k{dir / "signing.key", dir / "signing.pub", dir / "client.crt",
                     dir / "client.key"};
        run("openssl genrsa -out " + k.signingKey + " 2048 2>/dev/null && openssl pkey -in " +
            k.signingKey + " -pubout -out " + k.publicKey +
            " && openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=alert-client"
            " -keyout " +
            k.clientKey + " -out " + k.clientCert + " 2>/dev/null");
        return k;
    }();
    return keys;
}

namespace {

std::vector<std::string> _endpointArgs(const TempDir& state, const TokenEndpoint::Options& o) {
    const OAuth2Keys& keys = OAuth2Keys::get();
    std::vector<std::string> args = {"--state",       state.path(),
                                     "--signing-key", keys.signingKey,
                                     "--client-cert", keys.clientCert,
                                     "--port",        std::to_string(o.port),
                                     "--lifetime",    std::to_string(o.lifetime),
                                     "--subject",     o.subject};
    if (o.tls) {
        args.insert(args.end(),
                    {"--cert", Certificate::get().cert, "--key", Certificate::get().key});
    }
    if (!o.secretFile.empty()) {
        args.insert(args.end(), {"--secret-file", o.secretFile});
    }
    if (!o.refreshToken.empty()) {
        args.insert(args.end(), {"--refresh-token", o.refreshToken});
    }
    return args;
}

}  // namespace

TokenEndpoint::TokenEndpoint(const Options& options)
    : tls_(options.tls),
      server_(oauth2Script("token_endpoint.py"), _endpointArgs(state_, options)) {}

std::string TokenEndpoint::url() const {
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port()) +
           "/token";
}

std::vector<std::string> TokenEndpoint::requests() const {
    std::vector<std::string> lines;
    std::istringstream in(readFile(state_ / "requests"));
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

void TokenEndpoint::control(const std::string& json) const {
    writeFile(state_ / "control.json", json);
}

}  // namespace AgentTest
