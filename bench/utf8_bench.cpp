// What the channel does with text on every mail: copy attribute values,
// count characters and cut headers at a character limit.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "Toolkit/Utf8Array.h"

namespace {

// Mixed one-, two- and three-byte characters, `chars` of them.
std::string mixedText(int chars) {
    static const char* const pieces[] = {"a", "\xC3\xA9", "\xE2\x82\xAC", "z"};
    std::string out;
    for (int i = 0; i < chars; ++i) out += pieces[i % 4];
    return out;
}

void BM_CopyFromBytes(benchmark::State& state) {
    const std::string text = mixedText(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        Tamtk::Utf8Array copy(text.data(), static_cast<unsigned>(text.size()));
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(BM_CopyFromBytes)->Arg(64)->Arg(1024);

void BM_CopyArray(benchmark::State& state) {
    const Tamtk::Utf8Array text(mixedText(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        Tamtk::Utf8Array copy(text);
        benchmark::DoNotOptimize(copy.data());
    }
}
BENCHMARK(BM_CopyArray)->Arg(64)->Arg(1024);

void BM_Size(benchmark::State& state) {
    const Tamtk::Utf8Array text(mixedText(static_cast<int>(state.range(0))));
    for (auto _ : state) benchmark::DoNotOptimize(text.size());
    state.SetBytesProcessed(state.iterations() * text.length());
}
BENCHMARK(BM_Size)->Arg(64)->Arg(1024);

void BM_CutAtCharacters(benchmark::State& state) {
    const Tamtk::Utf8Array text(mixedText(1024));
    const unsigned limit = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        Tamtk::Utf8Array::const_iterator last = text.begin();
        std::advance(last, std::min(limit, text.size()));
        benchmark::DoNotOptimize(text.range(text.begin(), last));
    }
}
BENCHMARK(BM_CutAtCharacters)->Arg(78)->Arg(998);

}  // namespace
BENCHMARK_MAIN();
