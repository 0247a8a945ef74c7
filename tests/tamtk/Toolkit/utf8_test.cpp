#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <list>
#include <string>
#include <vector>

#include "Toolkit/Utf8Array.h"

using Tamtk::Utf8Array;
using Tamtk::Utf8Char;
using Tamtk::Utf8Exception;

namespace {

// One character of each length from one to six bytes.
const std::vector<std::string> kChars = {
    "A", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9D\x84\x9E", "\xF8\x88\x80\x80\x80",
    "\xFC\x84\x80\x80\x80\x80"};

std::string joined(const std::vector<std::string>& parts) {
    std::string out;
    for (const std::string& p : parts) out += p;
    return out;
}

std::vector<std::string> walkForward(const Utf8Array& text) {
    std::vector<std::string> out;
    for (Utf8Array::const_iterator it = text.begin(); it != text.end(); ++it) {
        out.emplace_back(it->c_str(), it->length());
    }
    return out;
}

// Runs `f`, expecting a Utf8Exception with `message` raised at `source`.
template <class F>
void expectUtf8Failure(F f, const char* message, const char* source) {
    try {
        f();
        ADD_FAILURE() << "no exception, expected \"" << message << '"';
    } catch (const Utf8Exception& e) {
        EXPECT_STREQ(e.what(), message);
        EXPECT_STREQ(e.location().file.c_str(), source);
        EXPECT_NE(e.location().line, 0);
        EXPECT_NE(std::strlen(e.location().function.c_str()), 0u);
    }
}

void freeBuffer(void* p) { std::free(p); }

int g_released = 0;
void countRelease(void* p) {
    ++g_released;
    std::free(p);
}

}  // namespace

TEST(Utf8Helpers, LeadByteGivesSequenceLength) {
    const struct {
        unsigned char lead;
        unsigned length;
    } cases[] = {{0x00, 1}, {0x41, 1}, {0x7F, 1}, {0x80, 0}, {0xBF, 0}, {0xC2, 2}, {0xDF, 2},
                 {0xE0, 3}, {0xEF, 3}, {0xF0, 4}, {0xF7, 4}, {0xF8, 5}, {0xFB, 5}, {0xFC, 6},
                 {0xFD, 6}, {0xFE, 0}, {0xFF, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(Tamtk::internal::utf8::num_utf8_chars(static_cast<char>(c.lead)), c.length)
            << std::hex << unsigned(c.lead);
    }
}

TEST(Utf8Helpers, NextAndPreviousInNulTerminatedText) {
    using namespace Tamtk::internal::utf8;
    const std::string text = joined(kChars);
    const char* p = text.c_str();
    const char* q = p;
    for (std::size_t i = 0; i + 1 < kChars.size(); ++i) {
        q = find_next_utf8(q);
        ASSERT_NE(q, nullptr);
        EXPECT_EQ(q - p, static_cast<long>(joined({kChars.begin(), kChars.begin() + i + 1}).size()));
    }
    EXPECT_EQ(find_next_utf8(q), nullptr) << "no character follows the last";
    EXPECT_EQ(find_next_utf8("\xE2\x82"), nullptr) << "cut short by the terminator";
    for (std::size_t i = kChars.size() - 1; i > 0; --i) {
        q = find_prev_utf8(q, p);
        ASSERT_NE(q, nullptr);
    }
    EXPECT_EQ(q, p);
    EXPECT_EQ(find_prev_utf8(p, p), nullptr);
}

TEST(Utf8Array, WalksEveryLengthForwardAndBack) {
    const Utf8Array text(joined(kChars));
    EXPECT_EQ(text.size(), kChars.size()) << "each sequence counts once";
    EXPECT_EQ(text.length(), 21u);
    EXPECT_EQ(walkForward(text), kChars);

    std::vector<std::string> backwards;
    Utf8Array::const_iterator it = text.end();
    while (it != text.begin()) {
        --it;
        backwards.emplace_back(it->c_str(), it->length());
    }
    EXPECT_EQ(backwards, std::vector<std::string>(kChars.rbegin(), kChars.rend()));
}

TEST(Utf8Array, IncrementOntoTheEndLeavesAnEmptyCharacter) {
    const Utf8Array text("\xF0\x9D\x84\x9E");
    Utf8Array::const_iterator it = text.begin();
    EXPECT_EQ(it->length(), 4u);
    ++it;
    EXPECT_TRUE(it == text.end());
    EXPECT_TRUE(it->empty());
    expectUtf8Failure([&] { ++it; }, "Increment past the end of Utf8Array", "array_iterator");
}

TEST(Utf8Array, SizeCountsCharactersNotBytes) {
    const struct {
        const char* text;
        unsigned size;
    } cases[] = {{"", 0},
                 {"abc", 3},
                 {"\xF0\x9D\x84\x9E", 1},
                 {"a\xF0\x9D\x84\x9E" "b", 3},
                 {"\xE2\x96\xA0\xE2\x96\xA0", 2},
                 {"\xFC\x84\x80\x80\x80\x80\xF8\x88\x80\x80\x80", 2}};
    for (const auto& c : cases) {
        EXPECT_EQ(Utf8Array(c.text).size(), c.size) << c.text;
    }
}

// Each buffer has `good` well-formed characters before the fault.
TEST(Utf8Array, StepsOntoMalformedBytesThrow) {
    const struct {
        std::string bytes;
        int good;
    } cases[] = {
        {"A\xE2\x82", 1},                 // last sequence cut short
        {"\xF0\x9D\x84", 0},              // four-byte lead with three bytes
        {"ab\xFC\x84\x80\x80\x80", 2},    // six-byte lead with five bytes
        {"\xE2" "A\x82", 0},              // continuation byte missing in the middle
        {"x\x80y", 1},                    // stray continuation byte
        {"\xFF", 0},                      // byte that opens nothing
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.good);
        const Utf8Array text(c.bytes);
        Utf8Array::const_iterator it = text.begin();
        for (int i = 0; i < c.good; ++i) ++it;
        expectUtf8Failure([&] { ++it; }, "Utf8Array has invalid buffer", "array_iterator");
    }
}

TEST(Utf8Array, DecrementBeforeTheFirstCharacterThrows) {
    const Utf8Array text("\xC3\xA9z");
    Utf8Array::const_iterator it = text.begin();
    expectUtf8Failure([&] { --it; }, "Utf8Array has invalid buffer", "array_iterator");
    ++it;
    --it;
    EXPECT_TRUE(it == text.begin());

    Utf8Array empty;
    Utf8Array::iterator e = empty.end();
    expectUtf8Failure([&] { --e; }, "Utf8Array has invalid buffer", "array_iterator");

    // Bytes before the position that are no complete sequence.
    const Utf8Array broken("\x80\x80z");
    Utf8Array::const_iterator z(broken.data() + 2, broken.data() + 3, &broken);
    expectUtf8Failure([&] { --z; }, "Utf8Array has invalid buffer", "array_iterator");
}

TEST(Utf8Array, AdvanceStepsBothWays) {
    const Utf8Array text(joined(kChars));
    Utf8Array::const_iterator it = text.begin();
    std::advance(it, 4);
    EXPECT_EQ(std::string(it->c_str()), kChars[4]);
    std::advance(it, -3);
    EXPECT_EQ(std::string(it->c_str()), kChars[1]);
    EXPECT_EQ(std::distance(text.begin(), text.end()), 6);
}

TEST(Utf8Array, RangeOfTheFirstCharacters) {
    const Utf8Array text(joined(kChars));
    for (unsigned n = 0; n <= kChars.size(); ++n) {
        Utf8Array::const_iterator last = text.begin();
        std::advance(last, n);
        const std::pair<const char*, const char*> r = text.range(text.begin(), last);
        EXPECT_EQ(std::string(r.first, r.second), joined({kChars.begin(), kChars.begin() + n}));
    }
    const Utf8Array other("abc");
    expectUtf8Failure([&] { text.range(other.begin(), other.end()); },
                      "Invalid iterator was applied", "Utf8Array");
    expectUtf8Failure([&] { text.range(text.end(), text.begin()); },
                      "Invalid iterator was applied", "Utf8Array");
}

TEST(Utf8Array, WritesThroughAMutableIteratorReachTheArray) {
    Utf8Array text("a\xC3\xA9z");
    const Utf8Array before(text);
    Utf8Array::iterator it = text.begin();
    ++it;
    *it = Utf8Char(wchar_t(0xE296A0));  // two bytes become three
    EXPECT_EQ(text.str(), "a\xE2\x96\xA0z");
    EXPECT_EQ(text.size(), 3u);
    EXPECT_EQ(before.str(), "a\xC3\xA9z") << "a copy made earlier keeps its text";
    ++it;
    EXPECT_EQ(*it, Utf8Char('z')) << "the writing iterator follows the moved buffer";
    *it = Utf8Char(wchar_t(0xF09D849E));
    EXPECT_EQ(text.str(), "a\xE2\x96\xA0\xF0\x9D\x84\x9E");
    --it;
    --it;
    it->raw_copy("Qrest", 6);
    EXPECT_EQ(text.str(), "Q\xE2\x96\xA0\xF0\x9D\x84\x9E");
}

TEST(Utf8Array, OnlyTheIteratorsOwnCharacterWritesBack) {
    Utf8Array text("abc");
    Utf8Array::iterator it = text.begin();
    Utf8Char copy = *it;
    copy = Utf8Char('X');
    EXPECT_EQ(text.str(), "abc") << "a copy of the character is detached";

    Utf8Array::iterator second = it;
    ++second;
    *second = Utf8Char('Y');
    EXPECT_EQ(text.str(), "aYc") << "a copied iterator writes at its own position";

    Utf8Array::iterator third = text.begin();
    *third;  // installs its signal
    third = second;
    ++third;
    EXPECT_EQ(text.str(), "aYc") << "repositioning writes nothing";
    *third = Utf8Char('Z');
    EXPECT_EQ(text.str(), "aYZ");

    it = text.begin();
    *it = Utf8Char();
    EXPECT_EQ(text.str(), "YZ") << "an empty character removes the one there";
    EXPECT_EQ(*it, Utf8Char('Y'));
}

TEST(Utf8Array, InsertWithAForeignIteratorChangesNothing) {
    Utf8Array text("abc");
    Utf8Array other("xyz");
    const char bytes[] = "12";
    expectUtf8Failure([&] { text.insert(other.begin(), Utf8Char('!')); },
                      "Invalid iterator was applied", "Utf8Array");
    expectUtf8Failure([&] { text.insert(other.end(), bytes, bytes + 2); },
                      "Invalid iterator was applied", "Utf8Array");
    EXPECT_EQ(text.str(), "abc");
    EXPECT_EQ(other.str(), "xyz");
}

TEST(Utf8Array, InsertsCharactersAndRanges) {
    Utf8Array text("ac");
    Utf8Array::iterator at = text.begin();
    ++at;
    at = text.insert(at, Utf8Char(wchar_t(0xC3A9)));
    EXPECT_EQ(*at, Utf8Char(wchar_t(0xC3A9)));
    EXPECT_EQ(text.str(), "a\xC3\xA9" "c");

    const std::string s = "12";
    text.insert(text.end(), s.begin(), s.end());
    const unsigned char raw[] = {0xE2, 0x82, 0xAC};
    text.insert(text.begin(), raw, raw + 3);
    const Utf8Array other("\xF0\x9D\x84\x9Ez");
    text.insert(text.end(), other.begin(), other.end());
    const std::list<Utf8Char> chars = {Utf8Char('<'), Utf8Char('>')};
    text.insert(text.begin(), chars.begin(), chars.end());
    EXPECT_EQ(text.str(), "<>\xE2\x82\xAC" "a\xC3\xA9" "c12\xF0\x9D\x84\x9Ez");

    // A range of the array itself survives the buffer moving under it.
    Utf8Array self("0123456789");
    self.insert(self.begin(), self.cbegin(), self.cend());
    EXPECT_EQ(self.str(), "01234567890123456789");
}

TEST(Utf8Array, PushBackGrowsWithoutTouchingCopies) {
    Utf8Array text;
    Utf8Array snapshot;
    for (int i = 0; i < 100; ++i) {
        text.push_back(Utf8Char(wchar_t(0xE282AC)));
        if (i == 49) snapshot = text;
    }
    EXPECT_EQ(text.size(), 100u);
    EXPECT_EQ(text.length(), 300u);
    EXPECT_EQ(snapshot.size(), 50u);
    EXPECT_EQ(std::strlen(text.c_str()), 300u);

    text.clear();
    EXPECT_TRUE(text.empty());
    EXPECT_STREQ(text.c_str(), "");
    text.allocate(64);
    EXPECT_GE(text.capacity(), 64u);
    const char* before = text.data();
    for (int i = 0; i < 64; ++i) text.push_back(Utf8Char('x'));
    EXPECT_EQ(text.data(), before) << "allocated room is used in place";
}

TEST(Utf8Array, CopiesShareAndChangesDetach) {
    const std::string long_text(100, 'q');
    std::string source = long_text;
    const char* buffer = source.data();
    Utf8Array taken(std::move(source));
    EXPECT_EQ(taken.data(), buffer) << "the string's buffer is taken over";
    EXPECT_EQ(taken.str(), long_text);

    Utf8Array copy(taken);
    EXPECT_EQ(copy.data(), taken.data());
    EXPECT_TRUE(copy == taken);
    copy.push_back(Utf8Char('!'));
    EXPECT_EQ(taken.str(), long_text);
    EXPECT_EQ(copy.length(), 101u);
    EXPECT_FALSE(copy == taken);

    Utf8Array assigned;
    assigned = copy;
    const Utf8Array& alias = assigned;  // self-assignment, through an alias so compilers accept it
    assigned = alias;
    EXPECT_EQ(assigned.str(), copy.str());
    Utf8Array moved(std::move(assigned));
    EXPECT_EQ(moved.str(), copy.str());
}

TEST(Utf8Array, TakenOverBufferIsReleasedOnceByTheLastOwner) {
    g_released = 0;
    {
        char* raw = static_cast<char*>(std::malloc(4));
        std::memcpy(raw, "abc", 3);  // no terminator: the array adds it
        Utf8Array owner(raw, 3, countRelease);
        EXPECT_STREQ(owner.c_str(), "abc");
        {
            Utf8Array copy(owner);
            copy.push_back(Utf8Char('d'));
            Utf8Array second(owner);
        }
        EXPECT_EQ(g_released, 0);
        EXPECT_EQ(owner.data(), raw);
    }
    EXPECT_EQ(g_released, 1);

    char* raw = static_cast<char*>(std::malloc(3));
    std::memcpy(raw, "xy", 3);
    Utf8Array viaFree(raw, 2, freeBuffer);
    EXPECT_EQ(viaFree.size(), 2u);
}

TEST(Utf8Array, MadeFromBytesOfAnyByteType) {
    const unsigned char xml[] = {'a', 0xC3, 0xA9, 0};
    EXPECT_EQ(Utf8Array(xml, 3).size(), 2u);
    const Utf8Array withNul("a\0b", 3);
    EXPECT_EQ(withNul.length(), 3u);
    EXPECT_EQ(withNul.size(), 3u);
    EXPECT_TRUE(Utf8Array(static_cast<const char*>(nullptr)).empty());
}

TEST(Utf8Array, StartOfTheLastCharacter) {
    const Utf8Array owner;
    const struct {
        std::string bytes;
        long lenient;   // offset returned without `complete`; -1 for null
        bool throws;    // with `complete`
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
    EXPECT_EQ(Utf8Char(wchar_t(0xF09D849E)).length(), 4u);
    EXPECT_TRUE(Utf8Char(wchar_t(0)).empty());
    EXPECT_THROW(Utf8Char(wchar_t(0x4142)), Utf8Exception) << "two characters";
    EXPECT_THROW(Utf8Char(wchar_t(0xE296)), Utf8Exception) << "cut short";

    Utf8Char c;
    for (const std::string& s : kChars) {
        c.raw_copy((s + "tail").c_str(), 6);
        EXPECT_EQ(std::string(c.c_str()), s);
    }
    EXPECT_THROW(c.raw_copy("\xFC\x84\x80\x80\x80\x80", 5), Utf8Exception);
    EXPECT_THROW(c.raw_copy("\xE2\x82", 6), Utf8Exception);
    EXPECT_THROW(c.raw_copy("\x80", 6), Utf8Exception);
}
