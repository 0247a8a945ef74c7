#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

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
    EXPECT_EQ(word("", Tamnet::B),
              "=?UTF-8?B?"
              "?=");
    EXPECT_EQ(word("", Tamnet::Q),
              "=?UTF-8?Q?"
              "?=");
    EXPECT_EQ(word("Man", Tamnet::B, "iso-8859-1"), "=?iso-8859-1?B?TWFu?=")
        << "charset written as given";
    EXPECT_EQ(word("a b_c", Tamnet::Q), "=?UTF-8?Q?a=20b=5Fc?=");
    EXPECT_EQ(qPayload("caf\xC3\xA9"), "caf=C3=A9");
    EXPECT_EQ(qPayload("=?!~"), "=3D=3F=21=7E") << "every punctuation character is encoded";
    // Bytes below 0x10 keep the blank of a two-wide field: "= 9", not "=09".
    EXPECT_EQ(qPayload("\t"), "= 9");
    EXPECT_EQ(qPayload(std::string(1, '\0')), "= 0");
    EXPECT_EQ(qPayload("\x0f\x10\x7f\xff"), "= F=10=7F=FF");
    EXPECT_EQ(word("a\tb", Tamnet::Q), "=?UTF-8?Q?a= 9b?=");
    EXPECT_EQ(qPayload("AZaz09"), "AZaz09");
}

TEST(Rfc2047, UnsupportedEncodingWritesNothing) {
    std::string out = "kept";
    const char data[] = "x";
    try {
        encodeRfc2047("UTF-8", data, data + 1, std::back_inserter(out),
                      static_cast<Tamnet::Rfc2047Encoding>(0x43));
        ADD_FAILURE() << "accepted";
    } catch (const Tamnet::Rfc2047Exception& e) {
        EXPECT_STREQ(e.what(), "Encoding not supported");
        EXPECT_STREQ(e.location().file.c_str(), "NetToolkit/Rfc2047");
        EXPECT_NE(std::string(e.location().function.c_str()).find("encodeRfc2047"),
                  std::string::npos);
    }
    EXPECT_EQ(out, "kept");
    std::ostringstream stream;
    EXPECT_THROW(encodeRfc2047(stream, "UTF-8", data, 1, static_cast<Tamnet::Rfc2047Encoding>(0)),
                 Tamnet::Rfc2047Exception);
    EXPECT_EQ(stream.str(), "");
}

TEST(Rfc2047, TheThreeFormsAgree) {
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> byte(0, 255);
    for (std::size_t length : {0u, 1u, 57u, 255u, 256u, 257u, 1000u}) {
        std::string bytes(length, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(byte(rng));
        }
        for (Tamnet::Rfc2047Encoding encoding : {Tamnet::B, Tamnet::Q}) {
            const std::string expected = word(bytes, encoding);
            std::ostringstream stream;
            encodeRfc2047(stream, "UTF-8", bytes.data(), static_cast<unsigned>(length), encoding);
            EXPECT_EQ(stream.str(), expected);
            std::ostringstream viaIterator;
            encodeRfc2047("UTF-8", bytes.begin(), bytes.end(),
                          std::ostream_iterator<char>(viaIterator), encoding);
            EXPECT_EQ(viaIterator.str(), expected);
        }
    }
}

// Decodes each line of `words` with Python's email.header and returns the
// bytes of each, in hex.
std::vector<std::string> decodeWithPython(const std::vector<std::string>& words) {
    char path[] = "/tmp/rfc2047_words_XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    {
        std::ofstream file(path, std::ios::binary);
        for (const std::string& w : words) {
            file << w << '\n';
        }
    }
    const std::string command =
        std::string("/usr/bin/python3 -c '") +
        "import sys, email.header\n"
        "for line in open(sys.argv[1], \"rb\").read().split(b\"\\n\")[:-1]:\n"
        "    parts = email.header.decode_header(line.decode(\"ascii\"))\n"
        "    print(b\"\".join(p if isinstance(p, bytes) else p.encode() for p, c in parts).hex())\n"
        "' " +
        path;
    std::vector<std::string> decoded;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char line[65536];
        while (std::fgets(line, sizeof line, pipe)) {
            std::string text(line);
            if (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            decoded.push_back(text);
        }
        EXPECT_EQ(pclose(pipe), 0);
    }
    close(fd);
    std::remove(path);
    return decoded;
}

std::string hex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (unsigned char c : bytes) {
        text += digits[c >> 4];
        text += digits[c & 15];
    }
    return text;
}

TEST(Rfc2047, WordsDecodeBackWithPython) {
    std::mt19937 rng(5);
    std::vector<std::string> inputs = {"", "a b_c", "caf\xC3\xA9 =?x?= _", std::string(57, 'z')};
    for (std::size_t length = 1; length < 300; length += 7) {
        std::string bytes(length, '\0');
        // Q words with a byte below 0x10 hold the "= 9" form, which decoders
        // cannot read: those are checked by their exact text above.
        std::uniform_int_distribution<int> byte(0x10, 0xFF);
        for (char& c : bytes) {
            c = static_cast<char>(byte(rng));
        }
        inputs.push_back(bytes);
    }
    std::vector<std::string> words;
    std::vector<std::string> expected;
    for (const std::string& bytes : inputs) {
        for (Tamnet::Rfc2047Encoding encoding : {Tamnet::B, Tamnet::Q}) {
            words.push_back(word(bytes, encoding));
            expected.push_back(hex(bytes));
        }
    }
    // Binary B words may hold any byte at all.
    const std::string allBytes = [] {
        std::string s;
        for (int c = 0; c < 256; ++c) {
            s += static_cast<char>(c);
        }
        return s;
    }();
    words.push_back(word(allBytes, Tamnet::B));
    expected.push_back(hex(allBytes));

    EXPECT_EQ(decodeWithPython(words), expected);
}

}  // namespace
