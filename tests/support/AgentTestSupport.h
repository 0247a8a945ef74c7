#pragma once

// Helpers for the agents' tests and benchmark: scratch directories, a
// throw-away TLS certificate, and a real SMTP server (smtp_server.py on
// Debian's Python with aiosmtpd) running on 127.0.0.1.

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace AgentTest {

// A fresh directory under $TMPDIR, removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Writes the file `name` inside; returns its path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string path_;
};

// Names of the files in a directory (not starting with '.'), sorted.
std::vector<std::string> listDir(const std::string& dir);
std::string readFile(const std::string& path);
// Returns `path`, so that a file can be made where its name is needed.
std::string writeFile(const std::string& path, const std::string& content);
// Runs a shell command; returns its standard output, throws on a non-zero exit.
std::string run(const std::string& command);
inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
// The first of `parts` not in `text`, "" when all are.
std::string missingFrom(const std::string& text, const std::vector<std::string>& parts);
// The message of the E that `op` throws; "no exception" when it throws none.
template <class E, class F>
std::string messageOf(const F& op) {
    try {
        op();
    } catch (const E& e) {
        return e.what();
    }
    return "no exception";
}
// Polls `condition` for up to `seconds`; whether it came true.
bool waitFor(const std::function<bool()>& condition, double seconds);

// A self-signed certificate for 127.0.0.1 and localhost, made once per process.
struct Certificate {
    std::string cert;
    std::string key;
    static const Certificate& get();
};

// Runs `body` in a child process without root's right to write anywhere
// (as user nobody when the tests run as root). Returns what `body` returned.
std::string runUnprivileged(const std::function<std::string()>& body);

class SmtpTestServer {
public:
    struct Options {
        bool starttls = false;           // offer STARTTLS with Certificate::get()
        bool requireStarttls = false;    // refuse mail before STARTTLS
        bool implicitTls = false;        // smtps: TLS from the first byte
        bool tls12Only = false;          // TLS 1.3 not offered
        bool clientCertificate = false;  // TLS only with Certificate::get() as the client's
        std::string auth;                // "user:password": AUTH PLAIN required
        bool echoAuth = false;           // a refused AUTH's reply quotes what the client sent
        double idleTimeout = 300;        // seconds before an idle client is dropped
        bool record = true;              // write what arrives to a file
        std::string dieOnce;             // marker file: crash on the first "X-Test-Die: yes"
        std::string mailReply;           // the reply to every MAIL FROM ("451 busy")
        double delay = 0;                // seconds before each message is answered
    };
    struct Message {
        bool tls;
        bool auth;
        std::string from;
        std::vector<std::string> to;
        std::string data;
    };

    explicit SmtpTestServer(const Options& options);
    SmtpTestServer() : SmtpTestServer(Options()) {}
    ~SmtpTestServer();
    SmtpTestServer(const SmtpTestServer&) = delete;
    SmtpTestServer& operator=(const SmtpTestServer&) = delete;

    // Starts the server; a restart listens on the same port as before.
    void start();
    // SIGKILL: the server stops wherever it is, as in a crash.
    void kill();
    // Waits until a server that ends by itself (dieOnce) has ended: its
    // socket closes before the process is gone, and start() would take a
    // dying server for one still up.
    void waitForExit();

    int port() const { return port_; }
    std::string url() const;  // smtp:// or smtps://127.0.0.1:<port>

    std::vector<Message> messages() const;
    int connections() const { return records('C'); }
    // AUTH commands received, whether they succeeded or not.
    int authCommands() const { return records('A'); }

private:
    int records(char kind) const;

    Options options_;
    TempDir dir_;
    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    int port_ = 0;
};

// A private Postfix instance on a free 127.0.0.1 port: its own
// configuration, queue and data directories under a scratch directory, and
// virtual Maildir delivery for `users`@example.test. The system's Postfix
// (its /etc/postfix, its queue) is never touched. It offers STARTTLS with
// Certificate::get() and answers 550 to the recipients in `refused`.
class PostfixServer {
public:
    // Why no instance can run on this machine ("" when one can): Postfix
    // needs root to start and the postfix package installed.
    static std::string unavailable();

    // Starts the instance; throws with Postfix's log when it does not start.
    PostfixServer(const std::vector<std::string>& users, const std::vector<std::string>& refused);
    // Stops it and waits for its master process to end.
    ~PostfixServer();
    PostfixServer(const PostfixServer&) = delete;
    PostfixServer& operator=(const PostfixServer&) = delete;

    std::string url() const { return "smtp://127.0.0.1:" + std::to_string(port_); }
    // The messages in the Maildir of `user`@example.test, waiting up to
    // `seconds` until there are at least `count` (Postfix delivers after it
    // has answered the client).
    std::vector<std::string> mailbox(const std::string& user, std::size_t count,
                                     double seconds) const;
    std::string log() const { return readFile(dir_ / "maillog"); }

private:
    TempDir dir_;
    int port_ = 0;
};

// A TCP port on 127.0.0.1 that nothing listens on at the moment.
int freePort();

}  // namespace AgentTest
