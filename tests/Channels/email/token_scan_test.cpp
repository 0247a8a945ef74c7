#include <gtest/gtest.h>

#include <boost/regex.hpp>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "Channels/email/token_scan.h"

namespace {

using Matches = std::vector<std::pair<std::size_t, std::size_t>>;

// The expression get_tokens builds for these keys.
boost::regex expressionOf(const std::vector<std::string>& keys) {
    std::string pattern;
    for (const std::string& key : keys) {
        pattern += (pattern.empty() ? "" : "|") + key;
    }
    return boost::regex(pattern + "+", boost::regex::perl);
}

Matches byExpression(const std::vector<std::string>& keys, const std::string& text) {
    const boost::regex expression = expressionOf(keys);
    Matches found;
    const char* const begin = text.data();
    for (boost::cregex_iterator it(begin, begin + text.size(), expression), stop; it != stop;
         ++it) {
        found.emplace_back((*it)[0].first - begin, (*it)[0].second - begin);
    }
    return found;
}

Matches byScan(const Osk::internal::token_scan& scan, const std::string& text) {
    Matches found;
    const char* const begin = text.data();
    const char* const end = begin + text.size();
    const char* matchBegin;
    const char* matchEnd;
    for (const char* from = begin; scan.find(from, end, matchBegin, matchEnd); from = matchEnd) {
        found.emplace_back(matchBegin - begin, matchEnd - begin);
    }
    return found;
}

// Random templates of the keys' pieces and stray "%", against key sets with shared
// prefixes, a "%" inside a name, an empty name and a repeated last name.
TEST(TokenScan, FindsWhatTheTokenExpressionFinds) {
    const std::vector<std::vector<std::string>> keySets = {
        {"%a%"},       {"%a%", "%ab%", "%b%"},        {"%ab%", "%a%"},     {"%a%b%", "%a%", "%b%"},
        {"%%", "%x%"}, {"%host%", "%sev%", "%host%"}, {"%x y%", "%-_:/%"},
    };
    const std::vector<std::string> pieces = {
        "%", "%%", "a", "b", "ab", "x", " y", "host", "sev", "-_:/", "text \xC3\xA9 ", "\n"};
    std::mt19937 rng(11);
    std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1), length(0, 14);
    for (const auto& keys : keySets) {
        Osk::internal::token_scan scan;
        ASSERT_TRUE(scan.assign(keys)) << keys.front();
        for (int round = 0; round < 3000; ++round) {
            std::string text;
            for (std::size_t n = length(rng); n != 0; --n) {
                text += pieces[pick(rng)];
            }
            ASSERT_EQ(byScan(scan, text), byExpression(keys, text))
                << "keys from " << keys.front() << ", template \"" << text << '"';
        }
    }
}

// A name the expression reads as syntax, or not printable ASCII, is left to the expression.
TEST(TokenScan, DeclinesNamesThatAreNotPlainText) {
    for (const char* name : {"a.b", "a|b", "(a)", "a*", "a+", "a?", "[ab]", "a{2}", "^a", "a$",
                             "a\\d", "caf\xC3\xA9", "tab\there"}) {
        Osk::internal::token_scan scan;
        EXPECT_FALSE(scan.assign({"%plain%", std::string("%") + name + "%"})) << name;
        EXPECT_FALSE(scan.usable()) << name;
    }
    Osk::internal::token_scan scan;
    EXPECT_FALSE(scan.assign({}));
}

}  // namespace
