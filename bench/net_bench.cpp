// Throughput of the encoders on the path of every alert mail: Base64 beside
// a memcpy of the same buffer (the ceiling), and one encoded word of 57 bytes,
// the piece a header or body line is cut into.

#include <benchmark/benchmark.h>

#include <cstring>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "NetToolkit/Base64.h"
#include "NetToolkit/Rfc2047.h"

namespace {

std::vector<char> randomBytes(std::size_t length) {
    std::mt19937 rng(42);
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<char> bytes(length);
    for (char& c : bytes) {
        c = static_cast<char>(byte(rng));
    }
    return bytes;
}

// Mostly letters with some blanks and accented letters, like header text.
std::vector<char> headerText(std::size_t length) {
    const std::string sample = "Disk nearly full on h\xC3\xB4te db-7: 93% used ";
    std::vector<char> text(length);
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = sample[i % sample.size()];
    }
    return text;
}

void BM_Memcpy(benchmark::State& state) {
    const std::vector<char> input = randomBytes(static_cast<std::size_t>(state.range(0)));
    std::vector<char> output(input.size());
    for (auto _ : state) {
        std::memcpy(output.data(), input.data(), input.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}

void BM_Base64ToBuffer(benchmark::State& state) {
    const std::vector<char> input = randomBytes(static_cast<std::size_t>(state.range(0)));
    std::vector<char> output((input.size() + 2) / 3 * 4);
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            Tamnet::base64(input.data(), input.data() + input.size(), output.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}

void BM_Base64ToString(benchmark::State& state) {
    const std::vector<char> input = randomBytes(static_cast<std::size_t>(state.range(0)));
    std::string output;
    for (auto _ : state) {
        output.clear();
        Tamnet::base64(input.data(), input.data() + input.size(), std::back_inserter(output));
        benchmark::DoNotOptimize(output.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}

// One word as message composition makes it: a new string per piece.
void BM_EncodedWord57(benchmark::State& state) {
    const auto encoding = static_cast<Tamnet::Rfc2047Encoding>(state.range(0));
    const std::vector<char> input = encoding == Tamnet::B ? randomBytes(57) : headerText(57);
    for (auto _ : state) {
        benchmark::DoNotOptimize(encodeRfc2047("UTF-8", input.data(), 57, encoding));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 57));
    state.SetLabel(encoding == Tamnet::B ? "B" : "Q");
}

// The same word written to a stream that is reused.
void BM_EncodedWord57ToStream(benchmark::State& state) {
    const auto encoding = static_cast<Tamnet::Rfc2047Encoding>(state.range(0));
    const std::vector<char> input = encoding == Tamnet::B ? randomBytes(57) : headerText(57);
    std::ostringstream out;
    for (auto _ : state) {
        out.seekp(0);
        encodeRfc2047(out, "UTF-8", input.data(), 57, encoding);
    }
    benchmark::DoNotOptimize(out.tellp());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * 57));
    state.SetLabel(encoding == Tamnet::B ? "B" : "Q");
}

}  // namespace

BENCHMARK(BM_Memcpy)->Arg(57)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_Base64ToBuffer)->Arg(57)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_Base64ToString)->Arg(57)->Arg(4096)->Arg(1 << 20);
BENCHMARK(BM_EncodedWord57)->Arg(Tamnet::B)->Arg(Tamnet::Q);
BENCHMARK(BM_EncodedWord57ToStream)->Arg(Tamnet::B)->Arg(Tamnet::Q);

BENCHMARK_MAIN();
