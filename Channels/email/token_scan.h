#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Osk {
namespace internal {

// Finds placeholders in a message template exactly as the token expression
// does ("%a%|%b%|...|%z%+", searched leftmost first, alternatives tried in
// order, the last one taking every "%" that follows it), without a regular
// expression engine: the search jumps from "%" to "%" and compares bytes.
//
// That equivalence holds only while every alternative is literal text. A
// token name may hold anything, and goes into the expression unescaped;
// when one holds a character the expression reads as syntax (or anything
// outside printable ASCII), the scanner declines and the caller keeps
// using the expression itself.
class token_scan {
public:
    // Takes the alternatives of the expression, in its order, each of the
    // form "%name%". Returns whether the scanner can stand in for it.
    bool assign(const std::vector<std::string>& alternatives);
    bool usable() const { return usable_; }

    // The first placeholder in [from, end) as [begin, end) of the match.
    bool find(const char* from, const char* end, const char*& matchBegin,
              const char*& matchEnd) const;

private:
    std::vector<std::string> keys_;
    bool usable_ = false;
};

}  // namespace internal
}  // namespace Osk
