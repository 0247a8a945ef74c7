#pragma once

// An access token from a program the operator names (a vault client, a
// cloud CLI): its first line of standard output.

#include <string>
#include <vector>

namespace Osk {
namespace EmailAgents {

// Runs `command` (program and arguments, no shell; the program is looked up
// in PATH) with standard input from /dev/null, the agent's environment and
// nothing of ours added to it. Returns the first line of its standard
// output. Throws OAuth2ConfigException when the program cannot be started,
// OAuth2TemporaryException when it exits non-zero, prints no token, or is
// still running after `timeoutMs` (it and its process group are then
// killed); the text names the command and quotes the first line of its
// standard error.
std::string runTokenCommand(const std::vector<std::string>& command, long timeoutMs);

}  // namespace EmailAgents
}  // namespace Osk
