#pragma once

// The files that hold an agent's OAuth2 secrets: a client secret, a refresh
// token. Texts about them name the file, never what it holds.

#include <string>

namespace Osk {
namespace EmailAgents {

// The first line of `file`, without its line end. Throws
// OAuth2ConfigException naming `what` and the file when it cannot be read
// or that line is empty.
std::string readSecretFile(const std::string& file, const char* what);

// Replaces the content of `file` with `secret` so that a crash at any
// moment leaves either the old or the new content whole, never a mix and
// never nothing: a temporary file in the same folder (mode 0600) is written,
// synced, renamed over `file`, and the folder synced. Throws
// OAuth2TemporaryException when any step fails; `file` is then unchanged.
void replaceSecretFile(const std::string& file, const std::string& secret, const char* what);

// Holds an exclusive lock on the folder of `file` for its lifetime, so that
// two processes of the agent never rotate one refresh token at once (the
// second would send a token the first just replaced).
class SecretFileLock {
public:
    explicit SecretFileLock(const std::string& file);
    ~SecretFileLock();
    SecretFileLock(const SecretFileLock&) = delete;
    SecretFileLock& operator=(const SecretFileLock&) = delete;

private:
    int fd_;
};

}  // namespace EmailAgents
}  // namespace Osk
