#include "Agents/common/oauth2/TokenCommand.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "Agents/common/oauth2/OAuth2Exceptions.h"

extern char** environ;

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/oauth2/TokenCommand";
// What is kept of each stream; the rest is read and dropped so that the
// program never blocks on a full pipe.
const std::size_t _keep = 64 * 1024;

typedef std::chrono::steady_clock Clock;

std::string _firstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    if (!line.empty() && line.back() == '\r') {
        line.pop_back();
    }
    return line;
}

std::string _joined(const std::vector<std::string>& command) {
    std::string text;
    for (const std::string& part : command) {
        text += (text.empty() ? "" : " ") + part;
    }
    return text;
}

// The child's pipes, closed however the run ends.
struct Pipes {
    int out[2] = {-1, -1};
    int err[2] = {-1, -1};
    ~Pipes() {
        for (int fd : {out[0], out[1], err[0], err[1]}) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
};

int _remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Reads both streams until they close or the deadline passes; whether they closed.
bool _drain(Pipes& pipes, std::string& out, std::string& err, Clock::time_point deadline) {
    pollfd fds[2] = {{pipes.out[0], POLLIN, 0}, {pipes.err[0], POLLIN, 0}};
    std::string* sinks[2] = {&out, &err};
    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        const int wait = _remainingMs(deadline);
        const int ready = wait > 0 ? poll(fds, 2, wait) : 0;
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return false;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char buf[4096];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0 && sinks[i]->size() < _keep) {
                sinks[i]->append(buf, static_cast<std::size_t>(n));
            } else if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) {
                fds[i].fd = -1;
            }
        }
    }
    return true;
}

// The exit status, or -1 when the child is still running at the deadline.
int _wait(pid_t pid, Clock::time_point deadline) {
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            return status;
        }
        if (done < 0 && errno != EINTR) {
            return 0;
        }
        if (_remainingMs(deadline) == 0) {
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

}  // namespace

std::string runTokenCommand(const std::vector<std::string>& command, long timeoutMs) {
    const std::string name = _joined(command);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    Pipes pipes;
    if (command.empty() || pipe2(pipes.out, O_CLOEXEC) != 0 || pipe2(pipes.err, O_CLOEXEC) != 0) {
        TAMTK_THROW(OAuth2TemporaryException, _source,
                    "cannot run the OAuth2 token command \"" << name << "\": no pipes");
    }
    std::vector<char*> argv;
    for (const std::string& part : command) {
        argv.push_back(const_cast<char*>(part.c_str()));
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, pipes.out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, pipes.err[1], 2);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    // Its own process group, so that a timeout also stops what it started;
    // default signal handling, whatever the host ignores.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(
        &attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) {
        TAMTK_THROW(
            OAuth2ConfigException, _source,
            "cannot run the OAuth2 token command \"" << name << "\": " << std::strerror(rc));
    }
    close(pipes.out[1]);
    close(pipes.err[1]);
    pipes.out[1] = pipes.err[1] = -1;

    std::string out, err;
    const bool closed = _drain(pipes, out, err, deadline);
    const int status = closed ? _wait(pid, deadline) : -1;
    if (status == -1) {
        kill(-pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        TAMTK_THROW(OAuth2TemporaryException, _source,
                    "the OAuth2 token command \"" << name << "\" did not finish within "
                                                  << timeoutMs / 1000.0 << " s and was stopped");
    }
    const std::string token = _firstLine(out);
    const bool exited = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (exited && !token.empty()) {
        return token;
    }
    std::ostringstream why;
    why << "the OAuth2 token command \"" << name << "\" ";
    if (exited) {
        why << "printed no token";
    } else if (WIFEXITED(status)) {
        why << "failed with exit status " << WEXITSTATUS(status);
    } else {
        why << "was killed by signal " << WTERMSIG(status);
    }
    const std::string complaint = _firstLine(err);
    if (complaint.empty()) {
        why << " and wrote nothing to its standard error";
    } else {
        why << ": \"" << complaint.substr(0, 300) << "\"";
    }
    TAMTK_THROW(OAuth2TemporaryException, _source, why.str());
}

}  // namespace EmailAgents
}  // namespace Osk
