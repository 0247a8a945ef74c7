// Message composition: whole messages built per second for a realistic
// alert in UTF-8 and in ISO-8859-1, and the per-character charset fallback
// as it was (a conversion opened and closed for every character) beside the
// channel's own (one handle, reset between characters).

#include <benchmark/benchmark.h>
#include <iconv.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Channels/email/encode.h"
#include "Channels/email/make_charset.h"
#include "alert_sample.h"

namespace {

using Osk::EmailChannel::CharsetString;

const long kTime = 1714564800;  // 2024-05-01 12:00:00 UTC

void buildEmail(benchmark::State& state, const char* charset) {
    const Tamtk::Utf8Array name(AlertSample::senderName());
    const Tamnet::EmailAddr from(AlertSample::sender());
    const std::vector<Tamnet::EmailAddr> to = AlertSample::recipients();
    const Tamtk::Utf8Array subject(AlertSample::subject());
    const Tamtk::Utf8Array body(AlertSample::body(false));
    const std::map<std::string, std::string> headers = AlertSample::headers();
    std::size_t bytes = 0;
    for (auto _ : state) {
        const std::string mail =
            Osk::EmailChannel::buildEmail(charset, kTime, name, from, to, subject, body, headers);
        bytes = mail.size();
        benchmark::DoNotOptimize(mail.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["mail_bytes"] = static_cast<double>(bytes);
}

void BM_BuildEmail_UTF8(benchmark::State& state) {
    buildEmail(state, "UTF-8");
}
void BM_BuildEmail_ISO88591(benchmark::State& state) {
    buildEmail(state, "ISO-8859-1");
}

// The fallback as first written: every character gets a conversion of its
// own, opened and closed around it. Same bytes as the channel's pass.
namespace naive {

const iconv_t kBad = reinterpret_cast<iconv_t>(-1);
const Tamtk::Utf8Char kReplacement(static_cast<wchar_t>(0xE296A0));  // U+25A0

bool convertSingle(const char* charset, const Tamtk::Utf8Char& ch, char* out, unsigned size,
                   bool replace) {
    iconv_t cd = iconv_open(charset, "UTF-8");
    if (cd == kBad) {
        throw std::runtime_error(std::strerror(errno));
    }
    std::memset(out, 0, size);
    char* in = const_cast<char*>(ch.c_str());
    size_t inLeft = ch.length();
    char* outPtr = out;
    size_t outLeft = size;
    const bool ok = iconv(cd, &in, &inLeft, &outPtr, &outLeft) != static_cast<size_t>(-1);
    iconv_close(cd);
    if (ok) {
        return true;
    }
    return replace ? convertSingle(charset, kReplacement, out, size, false) : false;
}

std::string skippingInvalid(const char* charset, const Tamtk::Utf8Array& text) {
    std::string accumulated;
    char buffer[9];
    for (Tamtk::Utf8Array::const_iterator it = text.begin(), end = text.end(); it != end; ++it) {
        std::memset(buffer, 0, sizeof buffer);
        if (convertSingle(charset, *it, buffer, 8, true)) {
            accumulated.append(buffer, std::strlen(buffer));
        }
    }
    if (accumulated.empty()) {
        throw std::runtime_error("Returned zero-length conversion");
    }
    return accumulated;
}

// The whole conversion as before: the one-call attempt fails on the
// character the charset lacks, then the slow pass runs.
std::string makeCharset(const char* charset, const Tamtk::Utf8Array& text) {
    iconv_t cd = iconv_open(charset, "UTF-8");
    if (cd == kBad) {
        return skippingInvalid(charset, text);
    }
    std::string output(text.length() * 2, '\0');
    char* in = const_cast<char*>(text.data());
    size_t inLeft = text.length();
    char* out = &output[0];
    size_t outLeft = output.size();
    const bool ok = iconv(cd, &in, &inLeft, &out, &outLeft) != static_cast<size_t>(-1);
    iconv_close(cd);
    if (ok) {
        throw std::logic_error("the sample was meant to need the fallback");
    }
    return skippingInvalid(charset, text);
}

}  // namespace naive

// 2 KB of ISO-8859-1 text with one CJK ideograph, which the charset lacks.
const Tamtk::Utf8Array& fallbackText() {
    static const Tamtk::Utf8Array text([] {
        std::string body = AlertSample::body(false);
        body.insert(body.size() / 2, "\xE6\x9D\xB1");  // U+6771
        return body;
    }());
    return text;
}

const char* const kFallbackCharset = "ISO-8859-1";

void BM_CharsetFallback_IconvOpenPerChar(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(naive::makeCharset(kFallbackCharset, fallbackText()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fallbackText().length()));
}

void BM_CharsetFallback_ReusedHandle(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(Osk::EmailChannel::make_charset(kFallbackCharset, fallbackText(),
                                                                 Osk::EmailChannel::noLimit));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * fallbackText().length()));
}

// Both fallbacks must give the same bytes, or the comparison means nothing.
void checkSameOutput() {
    const std::string before = naive::makeCharset(kFallbackCharset, fallbackText());
    const CharsetString after = Osk::EmailChannel::make_charset(kFallbackCharset, fallbackText(),
                                                                Osk::EmailChannel::noLimit);
    if (before.size() != after.length ||
        std::memcmp(before.data(), after.bytes.get(), after.length) != 0) {
        std::fprintf(stderr, "compose_bench: the two fallbacks differ (%zu and %u bytes)\n",
                     before.size(), after.length);
        std::exit(1);
    }
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

// The alert as JSON, so that a script can build the same message with
// other tools (bench/run times Python's email package on it).
void printSample() {
    std::string to;
    for (const auto& addr : AlertSample::recipients()) {
        to += (to.empty() ? "" : ", ") + jsonString(addr.asPlainString(false));
    }
    std::string headers;
    for (const auto& header : AlertSample::headers()) {
        headers += (headers.empty() ? "" : ", ") + jsonString(header.first) + ": " +
                   jsonString(header.second);
    }
    std::printf(
        "{\"time\": %ld, \"senderName\": %s, \"sender\": %s, \"to\": [%s], "
        "\"subject\": %s, \"headers\": {%s}, \"body\": %s}\n",
        kTime, jsonString(AlertSample::senderName()).c_str(),
        jsonString(AlertSample::sender()).c_str(), to.c_str(),
        jsonString(AlertSample::subject()).c_str(), headers.c_str(),
        jsonString(AlertSample::body(false)).c_str());
}

}  // namespace

BENCHMARK(BM_BuildEmail_UTF8)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BuildEmail_ISO88591)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CharsetFallback_IconvOpenPerChar)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CharsetFallback_ReusedHandle)->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--print-sample") == 0) {
        printSample();
        return 0;
    }
    checkSameOutput();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
