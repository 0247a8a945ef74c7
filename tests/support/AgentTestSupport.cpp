#include "AgentTestSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace AgentTest {

namespace {

std::string _unhex(const std::string& hex) {
    std::string out;
    out.reserve(hex.size() / 2);
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return out;
}

std::vector<std::string> _split(const std::string& text, char sep) {
    std::vector<std::string> out;
    std::string item;
    std::istringstream in(text);
    while (std::getline(in, item, sep)) {
        out.push_back(item);
    }
    return out;
}

sockaddr_in _loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

}  // namespace

TempDir::TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/agents-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = buf.data();
    chmod(path_.c_str(), 0755);  // the unprivileged child must reach inside
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    return writeFile(*this / name, content);
}

std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(dir, missing)) {
        if (entry.path().filename().string()[0] != '.') {
            names.push_back(entry.path().filename());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::string writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string run(const std::string& command) {
    FILE* p = popen(command.c_str(), "r");
    if (!p) {
        throw std::runtime_error("cannot run: " + command);
    }
    std::string out;
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    const int status = pclose(p);
    if (status != 0) {
        throw std::runtime_error("command failed (" + std::to_string(status) + "): " + command);
    }
    return out;
}

bool waitFor(const std::function<bool()>& condition, double seconds) {
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(static_cast<long>(seconds * 1000));
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string missingFrom(const std::string& text, const std::vector<std::string>& parts) {
    for (const std::string& part : parts) {
        if (!contains(text, part)) {
            return part;
        }
    }
    return "";
}

const Certificate& Certificate::get() {
    static TempDir dir;
    static const Certificate certificate = [] {
        Certificate c{dir / "cert.pem", dir / "key.pem"};
        run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
            " -subj /CN=localhost -addext subjectAltName=IP:127.0.0.1,DNS:localhost"
            " -keyout " +
            c.key + " -out " + c.cert + " 2>/dev/null");
        return c;
    }();
    return certificate;
}

std::string runUnprivileged(const std::function<std::string()>& body) {
    int fds[2];
    if (pipe(fds) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        std::string result = "cannot drop root";
        if (geteuid() != 0 || (setgid(65534) == 0 && setuid(65534) == 0)) {
            try {
                result = body();
            } catch (...) {
                result = "unexpected exception";
            }
        }
        const ssize_t ignored = write(fds[1], result.data(), result.size());
        (void)ignored;
        _exit(0);
    }
    close(fds[1]);
    // The pipe ends when the child does.
    const std::string result = readFile("/proc/self/fd/" + std::to_string(fds[0]));
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return result;
}

SmtpTestServer::SmtpTestServer(const Options& options) : options_(options) {
    start();
}

SmtpTestServer::~SmtpTestServer() {
    kill();
}

std::string SmtpTestServer::url() const {
    return std::string(options_.implicitTls ? "smtps" : "smtp") +
           "://127.0.0.1:" + std::to_string(port_);
}

void SmtpTestServer::start() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0) {
        return;  // still up
    }
    pid_ = -1;
    kill();  // closes the pipes of one that ended by itself
    std::vector<std::string> args = {"/usr/bin/python3", AGENTS_TEST_SERVER,
                                     "--port",           std::to_string(port_),
                                     "--idle-timeout",   std::to_string(options_.idleTimeout)};
    const auto add = [&args](bool when, std::initializer_list<std::string> more) {
        if (when) {
            args.insert(args.end(), more);
        }
    };
    const Options& o = options_;
    add(o.record, {"--record", dir_ / "record"});
    add(o.starttls || o.implicitTls,
        {"--cert", Certificate::get().cert, "--key", Certificate::get().key});
    add(!o.dieOnce.empty(), {"--die-once", o.dieOnce});
    add(!o.mailReply.empty(), {"--mail-reply", o.mailReply});
    add(o.delay > 0, {"--delay", std::to_string(o.delay)});
    add(o.implicitTls, {"--implicit-tls"});
    add(o.tls12Only, {"--tls-max", "1.2"});
    add(o.clientCertificate, {"--client-ca", Certificate::get().cert});
    add(o.requireStarttls, {"--require-starttls"});
    add(!o.auth.empty(), {"--auth", o.auth});
    add(o.echoAuth, {"--echo-auth"});
    std::vector<char*> argv;
    for (std::string& a : args) {
        argv.push_back(&a[0]);
    }
    argv.push_back(nullptr);

    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    const std::string log = dir_ / "server.log";
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    if (rc != 0) {
        pid_ = -1;
        throw std::runtime_error("cannot start " + args[0]);
    }

    std::string line;
    pollfd p{stdout_, POLLIN, 0};
    while (line.find('\n') == std::string::npos) {
        if (poll(&p, 1, 20000) <= 0) {
            kill();
            throw std::runtime_error("the SMTP test server did not start in time");
        }
        char buf[256];
        const ssize_t n = read(stdout_, buf, sizeof buf);
        if (n <= 0) {
            const std::string why = readFile(log);
            kill();
            throw std::runtime_error("the SMTP test server failed to start: " + why);
        }
        line.append(buf, static_cast<std::size_t>(n));
    }
    if (line.compare(0, 6, "READY ") != 0) {
        kill();
        throw std::runtime_error("unexpected output of the SMTP test server: " + line);
    }
    port_ = std::stoi(line.substr(6));
}

void SmtpTestServer::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }
    for (int* fd : {&stdin_, &stdout_}) {
        if (*fd >= 0) {
            close(*fd);
            *fd = -1;
        }
    }
}

void SmtpTestServer::waitForExit() {
    if (pid_ > 0) {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
    }
    kill();
}

std::vector<SmtpTestServer::Message> SmtpTestServer::messages() const {
    std::vector<Message> out;
    for (const std::string& line : _split(readFile(dir_ / "record"), '\n')) {
        const std::vector<std::string> f = _split(line, ' ');
        if (f.size() == 7 && f[0] == "M") {
            out.push_back({f[2] == "1", f[3] == "1", f[4] == "-" ? "" : f[4], _split(f[5], ','),
                           _unhex(f[6])});
        }
    }
    return out;
}

int SmtpTestServer::records(char kind) const {
    const std::vector<std::string> lines = _split(readFile(dir_ / "record"), '\n');
    return static_cast<int>(std::count_if(lines.begin(), lines.end(), [kind](const std::string& l) {
        return l.size() > 1 && l[0] == kind && l[1] == ' ';
    }));
}

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = _loopback(0);
    socklen_t length = sizeof address;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot find a free port");
    }
    close(fd);
    return ntohs(address.sin_port);
}

namespace {

const char* const _postfix = "/usr/sbin/postfix";

// Every service runs outside a chroot, so the scratch paths hold inside them.
const char* const _postfixServices =
    "pickup    unix  n  -  n  60   1  pickup\n"
    "cleanup   unix  n  -  n  -    0  cleanup\n"
    "qmgr      unix  n  -  n  300  1  qmgr\n"
    "rewrite   unix  -  -  n  -    -  trivial-rewrite\n"
    "bounce    unix  -  -  n  -    0  bounce\n"
    "defer     unix  -  -  n  -    0  bounce\n"
    "trace     unix  -  -  n  -    0  bounce\n"
    "verify    unix  -  -  n  -    1  verify\n"
    "flush     unix  n  -  n  1000 0  flush\n"
    "proxymap  unix  -  -  n  -    -  proxymap\n"
    "showq     unix  n  -  n  -    -  showq\n"
    "error     unix  -  -  n  -    -  error\n"
    "retry     unix  -  -  n  -    -  error\n"
    "discard   unix  -  -  n  -    -  discard\n"
    "virtual   unix  -  n  n  -    -  virtual\n"
    "anvil     unix  -  -  n  -    1  anvil\n"
    "scache    unix  -  -  n  -    1  scache\n"
    "tlsmgr    unix  -  -  n  1000? 1 tlsmgr\n"
    "postlog   unix-dgram n - n - 1  postlogd\n";

}  // namespace

std::string PostfixServer::unavailable() {
    if (access(_postfix, X_OK) != 0) {
        return "Postfix is not installed (Debian package postfix)";
    }
    if (geteuid() != 0) {
        return "a Postfix instance needs root to start";
    }
    if (!getpwnam("postfix") || !getpwnam("nobody")) {
        return "the users postfix and nobody are missing";
    }
    return "";
}

PostfixServer::PostfixServer(const std::vector<std::string>& users,
                             const std::vector<std::string>& refused)
    : port_(freePort()) {
    const passwd* nobody = getpwnam("nobody");
    const passwd* postfix = getpwnam("postfix");
    for (const char* sub : {"etc", "queue", "data", "mail"}) {
        mkdir((dir_ / sub).c_str(), 0755);
    }
    if (chown((dir_ / "data").c_str(), postfix->pw_uid, postfix->pw_gid) != 0 ||
        chown((dir_ / "mail").c_str(), nobody->pw_uid, nobody->pw_gid) != 0) {
        throw std::runtime_error("cannot hand the Postfix folders over");
    }
    const Certificate& certificate = Certificate::get();
    const std::string etc = dir_ / "etc";
    std::string refusals;
    for (const std::string& address : refused) {
        refusals += address + " 550 5.1.1 mailbox unavailable\n";
    }
    writeFile(etc + "/refused", refusals);
    std::string mailboxes;
    for (const std::string& user : users) {
        mailboxes += user + "@example.test " + user + "/\n";  // the slash: a Maildir
    }
    writeFile(etc + "/mailboxes", mailboxes);
    std::string mainCf = R"(compatibility_level = 3.6
queue_directory = @DIR@/queue
data_directory = @DIR@/data
maillog_file = @DIR@/maillog
maillog_file_prefixes = @DIR@
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
myhostname = postfix.test
mydestination =
mynetworks = 127.0.0.0/8
alias_maps =
alias_database =
relayhost =
local_transport = error:local delivery is off
default_transport = error:this instance sends nothing out
virtual_mailbox_domains = example.test
virtual_mailbox_base = @DIR@/mail
virtual_mailbox_maps = texthash:@DIR@/etc/mailboxes
virtual_uid_maps = static:@UID@
virtual_gid_maps = static:@GID@
smtpd_recipient_restrictions = check_recipient_access texthash:@DIR@/etc/refused, permit_mynetworks, reject_unauth_destination
smtpd_tls_security_level = may
smtpd_tls_cert_file = @CERT@
smtpd_tls_key_file = @KEY@
smtpd_tls_received_header = yes
)";
    const std::pair<const char*, std::string> values[] = {{"@DIR@", dir_.path()},
                                                          {"@UID@", std::to_string(nobody->pw_uid)},
                                                          {"@GID@", std::to_string(nobody->pw_gid)},
                                                          {"@CERT@", certificate.cert},
                                                          {"@KEY@", certificate.key}};
    for (const auto& value : values) {
        for (std::size_t at; (at = mainCf.find(value.first)) != std::string::npos;) {
            mainCf.replace(at, std::strlen(value.first), value.second);
        }
    }
    writeFile(etc + "/main.cf", mainCf);
    writeFile(etc + "/master.cf",
              "127.0.0.1:" + std::to_string(port_) + " inet n - n - - smtpd\n" + _postfixServices);
    // Postfix waits until a table or configuration file has not changed
    // for a second, in case it is still being written: backdate them.
    run("touch -d '-1 min' " + etc + "/*");
    try {
        run(std::string(_postfix) + " -c " + etc + " start 2>&1");
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string(e.what()) + "\n" + log());
    }
    // master binds the port before it forks the first smtpd; wait for it.
    const bool listening = waitFor(
        [this] {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address = _loopback(port_);
            const bool up = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            close(fd);
            return up;
        },
        10);
    if (!listening) {
        throw std::runtime_error("Postfix does not listen on port " + std::to_string(port_) + "\n" +
                                 log());
    }
}

PostfixServer::~PostfixServer() {
    const std::string pidText = readFile(dir_ / "queue/pid/master.pid");
    try {
        run(std::string(_postfix) + " -c " + (dir_ / "etc") + " stop >/dev/null 2>&1");
    } catch (const std::exception&) {
    }
    const pid_t master = static_cast<pid_t>(std::atol(pidText.c_str()));
    for (int i = 0; master > 0 && i < 200 && ::kill(master, 0) == 0; ++i) {
        int status = 0;
        waitpid(master, &status, WNOHANG);  // reaps it should it be our child
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

std::vector<std::string> PostfixServer::mailbox(const std::string& user, std::size_t count,
                                                double seconds) const {
    const std::string dir = dir_ / ("mail/" + user + "/new");
    waitFor([&] { return listDir(dir).size() >= count; }, seconds);
    std::vector<std::string> messages;
    for (const std::string& name : listDir(dir)) {
        messages.push_back(readFile(dir + "/" + name));
    }
    return messages;
}

}  // namespace AgentTest
