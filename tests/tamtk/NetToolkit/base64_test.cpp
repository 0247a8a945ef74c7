#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <iterator>
#include <list>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "NetToolkit/Base64.h"

namespace {

std::string encoded(const std::string& bytes) {
    std::string text;
    Tamnet::base64(bytes.data(), bytes.data() + bytes.size(), std::back_inserter(text));
    return text;
}

std::string randomBytes(std::mt19937& rng, std::size_t length) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::string bytes(length, '\0');
    for (char& c : bytes) {
        c = static_cast<char>(byte(rng));
    }
    return bytes;
}

TEST(Base64, TestVectors) {
    const std::pair<std::string, std::string> vectors[] = {{"", ""},
                                                           {"f", "Zg=="},
                                                           {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},
                                                           {"foob", "Zm9vYg=="},
                                                           {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"},
                                                           {"Man", "TWFu"},
                                                           {"Ma", "TWE="},
                                                           {"M", "TQ=="},
                                                           {std::string("\0\xff\xfe", 3), "AP/+"}};
    for (const auto& v : vectors) {
        EXPECT_EQ(encoded(v.first), v.second) << v.first;
    }
}

TEST(Base64, EveryInputAndOutputKindGivesTheSameText) {
    std::mt19937 rng(7);
    for (std::size_t length : {0u, 1u, 2u, 57u, 767u, 768u, 769u, 2000u}) {
        const std::string bytes = randomBytes(rng, length);
        const std::string expected = encoded(bytes);

        std::ostringstream stream;
        Tamnet::base64(bytes.begin(), bytes.end(), std::ostream_iterator<char>(stream));
        EXPECT_EQ(stream.str(), expected) << length;

        const std::list<unsigned char> list(bytes.begin(), bytes.end());
        std::vector<char> buffer(expected.size() + 1, '#');
        char* end = Tamnet::base64(list.begin(), list.end(), buffer.data());
        EXPECT_EQ(std::string(buffer.data(), end), expected) << length;
        EXPECT_EQ(*end, '#') << "writes nothing past its text";

        std::string appended = "prefix:";
        Tamnet::base64(bytes.begin(), bytes.end(), std::back_inserter(appended));
        EXPECT_EQ(appended, "prefix:" + expected);
    }
}

TEST(Base64, FiftySevenBytesMakeOneLineOfSeventySix) {
    const std::string text = encoded(std::string(57, '\xA5'));
    EXPECT_EQ(text.size(), 76u);
    EXPECT_EQ(text.find_first_of("\r\n="), std::string::npos);
    EXPECT_EQ(encoded(std::string(5700, 'x')).find('\n'), std::string::npos) << "no line breaks";
}

TEST(Base64, RandomInputRoundTripsThroughOpenSSL) {
    std::mt19937 rng(2024);
    for (std::size_t length = 0; length < 3000; length += 1 + length / 8) {
        const std::string bytes = randomBytes(rng, length);
        const std::string text = encoded(bytes);
        ASSERT_EQ(text.size(), (length + 2) / 3 * 4);
        std::vector<unsigned char> decoded(text.size() / 4 * 3 + 1);
        const int count =
            EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char*>(text.data()),
                            static_cast<int>(text.size()));
        // EVP_DecodeBlock keeps the zero bytes that stand for the padding.
        ASSERT_EQ(count, static_cast<int>(text.size() / 4 * 3)) << length;
        EXPECT_EQ(std::string(reinterpret_cast<char*>(decoded.data()), length), bytes) << length;
    }
}

// Each vector kernel this processor has must write what OpenSSL writes,
// consume whole groups only and stay inside its buffers (the input is
// copied to a buffer of its exact size, so that the sanitizers see any read
// past it), for every length around the step sizes.
TEST(Base64, VectorKernelsMatchOpenSSL) {
    using namespace Tamnet::internal::rfc2045;
    std::mt19937 rng(99);
    const std::string bytes = randomBytes(rng, 400);
    for (Kernel kernel : {Kernel::Avx2, Kernel::Avx512Vbmi}) {
        if (!kernelSupported(kernel)) {
            continue;
        }
        for (std::size_t length = 0; length <= bytes.size(); ++length) {
            const std::vector<unsigned char> input(bytes.begin(), bytes.begin() + length);
            std::string text(encodedLength(length) + 1, '#');
            const std::size_t done = encodeWideWith(kernel, input.data(), length, &text[0]);
            ASSERT_EQ(done % 3, 0u);
            ASSERT_LE(done, length);
            EXPECT_LT(length - done, 64u) << "at most one step is left to the caller";
            std::string expected(encodedLength(done) + 1, '\0');
            expected.resize(static_cast<std::size_t>(
                EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&expected[0]), input.data(),
                                static_cast<int>(done))));
            EXPECT_EQ(text.substr(0, done / 3 * 4), expected)
                << static_cast<int>(kernel) << " at " << length;
            EXPECT_EQ(text[done / 3 * 4], '#') << "nothing written past the consumed groups";
        }
    }
    EXPECT_TRUE(kernelSupported(bestKernel()));
}

}  // namespace
