#pragma once

// Reading an agent's <EmailAgent> parameters. Every name must be one the agent
// knows, and every value is checked when it is read, so a typo in the
// configuration shows up on the first message instead of being ignored.

#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace Osk {
namespace EmailAgents {

typedef std::map<std::string, std::string> Params;

class ParamReader {
public:
    // `agent` names the agent in messages ("Maildir agent"). Throws
    // AgentParamException when `params` holds a name not in `known`.
    ParamReader(const char* agent, const Params& params, std::initializer_list<const char*> known);
    // The same with a list put together at run time (an agent's own names
    // plus those of a shared part such as OAuth2).
    ParamReader(const char* agent, const Params& params, const std::vector<const char*>& known);

    bool has(const char* name) const;
    // The value, or `fallback` when the parameter is absent.
    std::string text(const char* name, const std::string& fallback) const;
    // The value; absent or empty is an error.
    std::string required(const char* name) const;
    // yes/no, true/false, on/off, 1/0 (any case).
    bool flag(const char* name, bool fallback) const;
    // One of `allowed` (exact spelling).
    std::string choice(const char* name, std::initializer_list<const char*> allowed,
                       const char* fallback) const;
    // A positive number of seconds, at most `max`; returned in milliseconds.
    // `zeroAllowed`: 0 is taken too (it switches something off).
    long milliseconds(const char* name, double fallbackSeconds, double maxSeconds,
                      bool zeroAllowed = false) const;
    // A whole number from `min` to `max`.
    long integer(const char* name, long fallback, long min, long max) const;

    // Raises AgentParamException: "<agent>: parameter "<name>" <problem>".
    [[noreturn]] void fail(const char* name, const std::string& problem) const;

private:
    const char* agent_;
    const Params& params_;
};

}  // namespace EmailAgents
}  // namespace Osk
