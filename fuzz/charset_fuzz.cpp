// Charset conversion of any text under any limit: a toolkit exception or
// bytes within the bounds; UTF-8 output is the input cut to the limit.

#include <fuzzer/FuzzedDataProvider.h>

#include <string>

#include "ChannelHarness.h"
#include "Channels/email/make_charset.h"
#include "FuzzCheck.h"
#include "Toolkit/Exceptions.h"
#include "Toolkit/Utf8Array.h"

using fuzzing::check;
using Osk::EmailChannel::noLimit;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const char* charset = in.PickValueInArray(fuzzing::charsets);
    const int mode = in.ConsumeIntegralInRange(0, 3);
    const unsigned limit = mode == 0   ? noLimit
                           : mode == 1 ? 0
                           : mode == 2 ? in.ConsumeIntegralInRange<unsigned>(1, 64)
                                       : in.ConsumeIntegral<unsigned>();
    const std::string bytes = in.ConsumeRemainingBytesAsString();
    const Tamtk::Utf8Array text(bytes.data(), static_cast<unsigned>(bytes.size()));

    try {
        const Osk::EmailChannel::CharsetString out =
            Osk::EmailChannel::make_charset(charset, text, limit);
        check(out.length == 0 || out.bytes, "bytes reported but no buffer");
        // At most 8 bytes out per byte in (fast path) or per character.
        check(out.length <= 8 * bytes.size(), "conversion grew beyond eight times its input",
              std::string(charset) + ": " + bytes);
        if (std::string(charset) == "UTF-8") {
            check(bytes.compare(0, out.length, out.bytes.get(), out.length) == 0 &&
                      (limit != noLimit || out.length == bytes.size()),
                  "UTF-8 output is not the input cut to the limit", bytes);
        }
    } catch (const Tamtk::Exception&) {
        // A clear report; only toolkit exceptions may leave a conversion.
    }
    return 0;
}
