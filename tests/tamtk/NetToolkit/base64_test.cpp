#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <iterator>
#include <list>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "NetToolkit/Base64.h"
#include "NetToolkit/Base64Decode.h"

namespace {

std::string randomBytes(std::mt19937& rng, std::size_t length) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::string bytes(length, '\0');
    for (char& c : bytes) c = static_cast<char>(byte(rng));
    return bytes;
}

std::string openssl(const unsigned char* bytes, std::size_t length) {
    std::string text(length / 3 * 4 + 5, '\0');
    text.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                                         bytes, static_cast<int>(length))));
    return text;
}

// Every kind of input and output iterator writes what OpenSSL writes, and
// nothing past it; the decoder reads it back and refuses what is not Base64.
TEST(Base64, EveryLengthAndIteratorKindMatchesOpenSSL) {
    std::mt19937 rng(2024);
    std::vector<std::size_t> lengths = {3071, 3072, 3073, 6145};  // around the block size
    for (std::size_t length = 0; length < 3000; length += 1 + length / 8) lengths.push_back(length);
    for (std::size_t length : lengths) {
        const std::string bytes = randomBytes(rng, length);
        const std::string expected =
            openssl(reinterpret_cast<const unsigned char*>(bytes.data()), length);

        std::string appended = "prefix:";
        Tamnet::base64(bytes.data(), bytes.data() + length, std::back_inserter(appended));
        EXPECT_EQ(appended, "prefix:" + expected) << length;
        std::ostringstream stream;
        Tamnet::base64(bytes.begin(), bytes.end(), std::ostream_iterator<char>(stream));
        EXPECT_EQ(stream.str(), expected) << length;
        const std::list<unsigned char> list(bytes.begin(), bytes.end());
        std::vector<char> buffer(expected.size() + 1, '#');
        char* end = Tamnet::base64(list.begin(), list.end(), buffer.data());
        EXPECT_EQ(std::string(buffer.data(), end), expected) << length;
        EXPECT_EQ(*end, '#') << "writes nothing past its text";
        std::string back;
        const std::string bare = expected.substr(0, expected.find('='));
        EXPECT_TRUE(Tamnet::unbase64(bare.data(), bare.size(), back) &&
                    Tamnet::unbase64(expected.data(), expected.size(), back));
        EXPECT_EQ(back, bytes + bytes) << "reads its text back, padded or not";
    }
    for (const std::string bad : {"T", "TW=u", "TW u", "TQ===", "TWFu\n"}) {
        std::string out = "kept";
        EXPECT_FALSE(Tamnet::unbase64(bad.data(), bad.size(), out) || out != "kept") << bad;
    }
}

// Each vector kernel this processor has must consume whole groups only and
// stay inside its buffers (the input is copied to a buffer of its exact
// size, so that the sanitizers see any read past it), for every length
// around the step sizes.
TEST(Base64, VectorKernelsMatchOpenSSL) {
    using namespace Tamnet::internal::rfc2045;
    std::mt19937 rng(99);
    const std::string bytes = randomBytes(rng, 400);
    for (Kernel kernel : {Kernel::Avx2, Kernel::Avx512Vbmi}) {
        if (!kernelSupported(kernel))
            continue;
        for (std::size_t length = 0; length <= bytes.size(); ++length) {
            const std::vector<unsigned char> input(bytes.begin(), bytes.begin() + length);
            std::string text(encodedLength(length) + 1, '#');
            const std::size_t done = encodeWideWith(kernel, input.data(), length, &text[0]);
            ASSERT_EQ(done % 3, 0u);
            ASSERT_LE(done, length);
            EXPECT_LT(length - done, 64u) << "at most one step is left to the caller";
            EXPECT_EQ(text.substr(0, done / 3 * 4), openssl(input.data(), done))
                << static_cast<int>(kernel) << " at " << length;
            EXPECT_EQ(text[done / 3 * 4], '#') << "nothing written past the consumed groups";
        }
    }
    EXPECT_TRUE(kernelSupported(bestKernel()));
}

}  // namespace
