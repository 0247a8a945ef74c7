#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "AgentTestSupport.h"
#include "NetToolkit/Rfc2047.h"

using Tamnet::encodeRfc2047;

namespace {

std::string word(const std::string& bytes, Tamnet::Rfc2047Encoding encoding,
                 const char* charset = "UTF-8") {
    return encodeRfc2047(charset, bytes.data(), static_cast<unsigned>(bytes.size()), encoding);
}

std::string qPayload(const std::string& bytes) {
    std::string text;
    Tamnet::internal::rfc2047::q_encode(bytes.begin(), bytes.end(), std::back_inserter(text));
    return text;
}

TEST(Rfc2047, ExactWords) {
    const struct {
        std::string text;
        std::string expected;
    } rows[] = {
        {word("", Tamnet::Q), "=?UTF-8?Q?\?="},
        {word("Man", Tamnet::B, "iso-8859-1"), "=?iso-8859-1?B?TWFu?="},  // charset as given
        {word("a b_c", Tamnet::Q), "=?UTF-8?Q?a=20b=5Fc?="},
        {word("a\tb", Tamnet::Q), "=?UTF-8?Q?a= 9b?="},
        {qPayload("caf\xC3\xA9"), "caf=C3=A9"},
        {qPayload("=?!~"), "=3D=3F=21=7E"},  // every punctuation character is encoded
        // Bytes below 0x10 keep the blank of a two-wide field: "= 9", not "=09".
        {qPayload(std::string(1, '\0')), "= 0"},
        {qPayload("\x0f\x10\x7f\xff"), "= F=10=7F=FF"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(r.text, r.expected);
    }
}

TEST(Rfc2047, UnsupportedEncodingWritesNothing) {
    std::ostringstream stream;
    const char data[] = "x";
    EXPECT_THROW(
        encodeRfc2047(stream, "UTF-8", data, 1, static_cast<Tamnet::Rfc2047Encoding>(0x43)),
        Tamnet::Rfc2047Exception);
    EXPECT_EQ(stream.str(), "");
}

// Decodes each line of `words` with Python's email.header: the bytes of
// each in hex, a line each.
std::string decodeWithPython(const std::vector<std::string>& words) {
    AgentTest::TempDir dir;
    std::string lines;
    for (const std::string& w : words) lines += w + '\n';
    return AgentTest::run(
        "/usr/bin/python3 -c 'import sys, email.header\n"
        "for line in open(sys.argv[1], \"rb\").read().split(b\"\\n\")[:-1]:\n"
        "    parts = email.header.decode_header(line.decode(\"ascii\"))\n"
        "    print(b\"\".join(p if isinstance(p, bytes) else p.encode() for p, c in parts).hex())\n"
        "' " +
        dir.write("words", lines));
}

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char c : bytes) text += std::string{digits[c >> 4], digits[c & 15]};
    return text;
}

TEST(Rfc2047, WordsDecodeBackWithPython) {
    std::mt19937 rng(5);
    std::vector<std::string> inputs = {"", "a b_c", "caf\xC3\xA9 =?x?= _", std::string(57, 'z')};
    // Q words with a byte below 0x10 hold the "= 9" form, which decoders
    // cannot read: those are checked by their exact text above.
    std::uniform_int_distribution<int> byte(0x10, 0xFF);
    for (std::size_t length = 1; length < 300; length += 7) {
        std::string bytes(length, '\0');
        for (char& c : bytes) c = static_cast<char>(byte(rng));
        inputs.push_back(bytes);
    }
    for (std::size_t length : {255u, 256u, 257u, 1000u}) {  // around the block size
        inputs.push_back(inputs.back().substr(0, 200) + std::string(length - 200, '\xA0'));
    }
    std::vector<std::string> words;
    std::string expected;
    for (const std::string& bytes : inputs) {
        for (Tamnet::Rfc2047Encoding encoding : {Tamnet::B, Tamnet::Q}) {
            words.push_back(word(bytes, encoding));
            expected += hex(bytes) + '\n';
            // The stream and iterator forms write the same word.
            std::ostringstream stream, viaIterator;
            encodeRfc2047(stream, "UTF-8", bytes.data(), static_cast<unsigned>(bytes.size()),
                          encoding);
            encodeRfc2047("UTF-8", bytes.begin(), bytes.end(),
                          std::ostream_iterator<char>(viaIterator), encoding);
            EXPECT_EQ(stream.str(), words.back());
            EXPECT_EQ(viaIterator.str(), words.back());
        }
    }
    // Binary B words may hold any byte at all.
    std::string allBytes;
    for (int c = 0; c < 256; ++c) allBytes += static_cast<char>(c);
    words.push_back(word(allBytes, Tamnet::B));
    expected += hex(allBytes) + '\n';

    EXPECT_EQ(decodeWithPython(words), expected);
}

}  // namespace
