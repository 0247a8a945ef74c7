#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <list>
#include <string>
#include <vector>

#include "AgentTestSupport.h"
#include "Toolkit/Utf8Array.h"

using Tamtk::Utf8Array;
using Tamtk::Utf8Char;
using Tamtk::Utf8Exception;

namespace {

// One character of each length from one to six bytes.
const std::vector<std::string> kChars = {"A",
                                         "\xC3\xA9",
                                         "\xE2\x82\xAC",
                                         "\xF0\x9D\x84\x9E",
                                         "\xF8\x88\x80\x80\x80",
                                         "\xFC\x84\x80\x80\x80\x80"};

std::string firstChars(std::size_t n) {
    std::string out;
    for (std::size_t i = 0; i < n; ++i) out += kChars[i];
    return out;
}

int g_released = 0;
void countRelease(void* p) {
    ++g_released;
    std::free(p);
}

}  // namespace

TEST(Utf8Array, WalksEveryLengthForwardAndBack) {
    const Utf8Array text(firstChars(kChars.size()));
    EXPECT_EQ(text.size(), kChars.size()) << "each sequence counts once";
    EXPECT_EQ(text.length(), 21u);
    EXPECT_EQ(Utf8Array("a\0b", 3).size(), 3u) << "a NUL is a character";
    EXPECT_EQ(Utf8Array(static_cast<const char*>(nullptr)).size(), 0u);

    std::vector<std::string> forward, backward;
    Utf8Array::const_iterator it = text.begin();
    for (Utf8Char raw; it != text.end(); ++it) {
        forward.emplace_back(it->c_str(), it->length());
        raw.raw_copy(it.position(), 6);  // reads one character of the six bytes
        EXPECT_EQ(raw, *it);
    }
    EXPECT_TRUE(it->empty()) << "stepped onto the end, it holds an empty character";
    while (it != text.begin()) {
        --it;
        backward.insert(backward.begin(), std::string(it->c_str(), it->length()));
    }
    EXPECT_EQ(forward, kChars);
    EXPECT_EQ(backward, kChars);

    for (unsigned n = 0; n <= kChars.size(); ++n) {
        Utf8Array::const_iterator last = text.begin();
        std::advance(last, n);
        const std::pair<const char*, const char*> r = text.range(text.begin(), last);
        EXPECT_EQ(std::string(r.first, r.second), firstChars(n));
    }
}

// Malformed bytes and misused iterators: each raises, and changes nothing.
TEST(Utf8Array, MalformedBytesAndForeignIteratorsAreRefused) {
    const std::string invalid = "Utf8Array has invalid buffer";
    const std::string foreign = "Invalid iterator was applied";
    // Steps over `good` well-formed characters, then once more.
    auto stepPast = [](std::string bytes, int good) {
        return [bytes, good] {
            const Utf8Array text(bytes);
            Utf8Array::const_iterator it = text.begin();
            for (int i = 0; i <= good; ++i) ++it;
        };
    };
    Utf8Array text("\xC3\xA9z");
    Utf8Array other("xyz");
    const Utf8Array broken("\x80\x80z");
    const struct {
        const char* what;
        std::function<void()> op;
        std::string message;
    } rows[] = {
        {"cut short at the end", stepPast("A\xE2\x82", 1), invalid},
        {"four-byte lead with three", stepPast("\xF0\x9D\x84", 0), invalid},
        {"continuation missing inside", stepPast("\xE2\x41\x82", 0), invalid},
        {"stray continuation byte", stepPast("x\x80y", 1), invalid},
        {"byte that opens nothing", stepPast("\xFF", 0), invalid},
        {"past the end", stepPast("\xF0\x9D\x84\x9E", 1), "Increment past the end of Utf8Array"},
        {"before the first", [&] { --text.begin(); }, invalid},
        {"before the first of nothing", [] { --Utf8Array().end(); }, invalid},
        {"before, onto no complete sequence",
         [&] { --Utf8Array::const_iterator(broken.data() + 2, broken.data() + 3, &broken); },
         invalid},
        {"range of another array", [&] { text.range(other.begin(), other.end()); }, foreign},
        {"reversed range", [&] { text.range(text.end(), text.begin()); }, foreign},
        {"insert at another's", [&] { text.insert(other.begin(), Utf8Char('!')); }, foreign},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(AgentTest::messageOf<Utf8Exception>(r.op), r.message) << r.what;
    }
    EXPECT_EQ(text.str(), "\xC3\xA9z");
    EXPECT_EQ(other.str(), "xyz");
}

TEST(Utf8Array, WritesThroughAnIteratorReachOnlyItsOwnPosition) {
    Utf8Array text("a\xC3\xA9z");
    const Utf8Array before(text);
    Utf8Array::iterator it = text.begin();
    ++it;
    *it = Utf8Char(wchar_t(0xE296A0));  // two bytes become three
    EXPECT_EQ(before.str(), "a\xC3\xA9z") << "a copy made earlier keeps its text";
    ++it;
    EXPECT_EQ(*it, Utf8Char('z')) << "the writing iterator follows the moved buffer";
    *it = Utf8Char(wchar_t(0xF09D849E));
    EXPECT_EQ(text.str(), "a\xE2\x96\xA0\xF0\x9D\x84\x9E");

    Utf8Array abc("abc");
    Utf8Array::iterator first = abc.begin();
    Utf8Char copy = *first;
    copy = Utf8Char('X');
    Utf8Array::iterator second = first;
    ++second;
    *second = Utf8Char('Y');
    EXPECT_EQ(abc.str(), "aYc") << "a copied iterator writes at its own position, a copy nowhere";
    Utf8Array::iterator third = abc.begin();
    *third;  // installs its signal
    third = second;
    ++third;
    EXPECT_EQ(abc.str(), "aYc") << "repositioning writes nothing";
    *third = Utf8Char('Z');
    *first = Utf8Char();
    EXPECT_EQ(abc.str(), "YZ") << "an empty character removes the one there";
}

TEST(Utf8Array, InsertsCharactersAndRanges) {
    Utf8Array text("ac");
    Utf8Array::iterator at = text.begin();
    ++at;
    at = text.insert(at, Utf8Char(wchar_t(0xC3A9)));
    EXPECT_EQ(*at, Utf8Char(wchar_t(0xC3A9)));
    const std::string s = "12";
    text.insert(text.end(), s.begin(), s.end());
    const std::list<Utf8Char> chars = {Utf8Char('<'), Utf8Char('>')};
    text.insert(text.begin(), chars.begin(), chars.end());
    EXPECT_EQ(text.str(),
              "<>a\xC3\xA9"
              "c12");

    // A range of the array itself survives the buffer moving under it.
    Utf8Array self("0123456789");
    self.insert(self.begin(), self.cbegin(), self.cend());
    EXPECT_EQ(self.str(), "01234567890123456789");
}

TEST(Utf8Array, CopiesAreIndependentAndABufferIsReleasedOnce) {
    Utf8Array text;
    Utf8Array snapshot;
    for (int i = 0; i < 100; ++i) {
        text.push_back(Utf8Char(wchar_t(0xE282AC)));
        if (i == 49)
            snapshot = text;
    }
    EXPECT_EQ(std::strlen(text.c_str()), 300u);
    EXPECT_EQ(snapshot.size(), 50u);
    Utf8Array copy(text);
    copy.push_back(Utf8Char('!'));
    EXPECT_FALSE(copy == text);
    const Utf8Array& alias = copy;  // self-assignment, through an alias so compilers accept it
    copy = alias;
    EXPECT_EQ(Utf8Array(std::move(copy)).length(), 301u);
    EXPECT_EQ(text.length(), 300u);

    g_released = 0;
    {
        char* raw = static_cast<char*>(std::malloc(4));
        std::memcpy(raw, "abc", 3);  // no terminator: the array adds it
        Utf8Array owner(raw, 3, countRelease);
        EXPECT_STREQ(owner.c_str(), "abc");
        Utf8Array(owner).push_back(Utf8Char('d'));
        EXPECT_EQ(g_released, 0);
    }
    EXPECT_EQ(g_released, 1);
}

TEST(Utf8Array, StartOfTheLastCharacter) {
    const Utf8Array owner;
    const struct {
        std::string bytes;
        long lenient;  // offset returned without `complete`; -1 for null
        bool throws;   // with `complete`
    } cases[] = {
        {"", -1, false},
        {"ab", 1, false},
        {"a\xF0\x9D\x84\x9E", 1, false},
        {"a\xFC\x84\x80\x80\x80\x80", 1, false},
        {"a\xE2\x82", 1, true},
        {"\x80\x80\x80\x80\x80\x80\x80", -1, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bytes);
        const char* p = c.bytes.data();
        const unsigned n = static_cast<unsigned>(c.bytes.size());
        const char* found = owner.find_start_of_last_char(p, n, false);
        EXPECT_EQ(found ? found - p : -1, c.lenient);
        if (c.throws) {
            EXPECT_THROW(owner.find_start_of_last_char(p, n, true), Utf8Exception);
        } else {
            EXPECT_EQ(owner.find_start_of_last_char(p, n, true), found);
        }
    }
}

TEST(Utf8Char, PackedBigEndianAndRawCopies) {
    EXPECT_STREQ(Utf8Char(wchar_t(0xE296A0)).c_str(), "\xE2\x96\xA0");
    EXPECT_EQ(Utf8Char(wchar_t(0x41)), Utf8Char('A'));
    EXPECT_THROW(Utf8Char(wchar_t(0x4142)), Utf8Exception) << "two characters";
    EXPECT_THROW(Utf8Char(wchar_t(0xE296)), Utf8Exception) << "cut short";
    Utf8Char c;
    EXPECT_THROW(c.raw_copy("\xFC\x84\x80\x80\x80\x80", 5), Utf8Exception);
    EXPECT_THROW(c.raw_copy("\x80", 6), Utf8Exception);
}
