#pragma once

// One OAuth2 access token per agent, shared by all its connections.
//
// How a transport uses it (once per agent, not per mail):
//
//   TokenCache tokens(makeTokenSource(settings));      // with the agent's state
//   ...
//   const bool accepted = tokens.signIn([&](const std::string& token) {
//       setOAuth2Login(curl, settings, token);           // OAuth2Curl.h
//       const CURLcode rc = curl_easy_perform(curl);     // the whole transaction
//       return !signInRefused(rc);                       // other outcomes: as usual
//   });
//   if (!accepted) { the server refused a fresh token too: report it plainly }
//
// get() hands out the cached token and fetches a new one only shortly
// before it expires; the first caller that finds it due fetches while the
// others wait for that one fetch (or go on with the old token while it is
// still valid). A token the server refuses is dropped with invalidate(), and
// signIn() retries the transaction once with a fresh one. Fetch failures
// come out of get() as OAuth2ConfigException or OAuth2TemporaryException.

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "Toolkit/Metrics.h"

namespace Osk {
namespace EmailAgents {

struct Token {
    std::string value;
    std::chrono::seconds lifetime;  // from the moment it was asked for
};

// Where tokens come from: an endpoint, a command. fetch() is called by one
// thread at a time.
class TokenSource {
public:
    virtual ~TokenSource() {}
    virtual Token fetch() = 0;
};

class TokenCache {
public:
    explicit TokenCache(std::unique_ptr<TokenSource> source);
    TokenCache(const TokenCache&) = delete;
    TokenCache& operator=(const TokenCache&) = delete;

    // A token valid now. Renews it once a tenth of its lifetime (at most
    // five minutes) is left.
    std::string get();
    // The server refused a sign-in with `token`: the next get() fetches a
    // fresh one. A token already replaced is left alone, so that callers
    // refused with the same old token cause one fetch, not one each.
    void invalidate(const std::string& token);
    // Runs `attempt` with get(); when it returns false (the server refused
    // the token), invalidates that token and runs it once more with a fresh
    // one. Returns what the last run returned.
    bool signIn(const std::function<bool(const std::string& token)>& attempt);

    // Fetches from the token source so far, and how many of them failed.
    struct Counts {
        unsigned long fetches = 0;
        unsigned long failures = 0;
    };
    Counts counts();
    // Writes the counts in the Prometheus text format.
    void writeMetrics(Tamtk::MetricsText& out);

private:
    typedef std::chrono::steady_clock Clock;

    std::unique_ptr<TokenSource> source_;
    std::mutex mutex_;
    std::condition_variable fetched_;
    std::string token_;  // "" when there is none, or it was refused
    Clock::time_point expires_;
    Clock::time_point renewAt_;
    bool fetching_ = false;
    unsigned long fetches_ = 0;   // fetches finished, with or without a token
    unsigned long failures_ = 0;  // of those, the ones that brought none
    std::exception_ptr failure_;  // why the last one failed
};

}  // namespace EmailAgents
}  // namespace Osk
