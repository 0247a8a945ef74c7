#pragma once

// A broken property is a finding: reported on standard error (unbuffered)
// and ended with abort() so that libFuzzer records the input as a crash.

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzzing {

[[noreturn]] inline void fail(const std::string& what, const std::string& detail = std::string()) {
    std::fprintf(stderr, "\n*** property broken: %s\n--- detail (%zu bytes) ---\n%s\n--- end ---\n",
                 what.c_str(), detail.size(), detail.c_str());
    std::abort();
}

inline void check(bool condition, const std::string& what,
                  const std::string& detail = std::string()) {
    if (!condition)
        fail(what, detail);
}

}  // namespace fuzzing
