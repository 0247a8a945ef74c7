#pragma once

// What every fuzz target uses to state a property: a broken property is a
// finding, reported on standard error and ended with abort() so that
// libFuzzer records the input as a crash.

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzzing {

[[noreturn]] inline void fail(const std::string& what, const std::string& detail = std::string()) {
    std::fprintf(stderr, "\n*** property broken: %s\n", what.c_str());
    if (!detail.empty()) {
        std::fprintf(stderr, "--- detail (%zu bytes) ---\n%s\n--- end ---\n", detail.size(),
                     detail.c_str());
    }
    std::fflush(stderr);
    std::abort();
}

inline void check(bool condition, const std::string& what,
                  const std::string& detail = std::string()) {
    if (!condition)
        fail(what, detail);
}

}  // namespace fuzzing
