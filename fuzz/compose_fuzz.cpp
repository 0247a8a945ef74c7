// Email assembly: every input of buildEmail from the fuzzer. A built mail has
// the shape checkMail states; one that is not built fails with a toolkit exception.

#include <fuzzer/FuzzedDataProvider.h>

#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ChannelHarness.h"
#include "Channels/email/encode.h"
#include "FuzzCheck.h"
#include "Toolkit/Exceptions.h"

namespace {

// Header names come from configuration, never from an event: a fixed set.
const char* const _headerNames[] = {"X-Host", "X-Severity", "X-Group", "Reply-To", "x-lower"};

const char* const _addresses[] = {"alerts@example.com", "<ops@example.org>", "postmaster",
                                  "\"odd one\"@[192.0.2.1]", "<@relay.example:a.b@c-d.example>"};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const char* charset = fuzzing::charsets[in.ConsumeIntegralInRange<std::size_t>(
        0, std::size(fuzzing::charsets) - 2)];
    const long time = in.ConsumeIntegral<long>();
    const Tamnet::EmailAddr from(in.PickValueInArray(_addresses));
    std::vector<Tamnet::EmailAddr> to;
    const int recipients = in.ConsumeIntegralInRange(1, 3);
    for (int i = 0; i < recipients; ++i) to.emplace_back(in.PickValueInArray(_addresses));

    std::map<std::string, std::string> headers;
    const int headerCount = in.ConsumeIntegralInRange(0, 3);
    for (int i = 0; i < headerCount; ++i) {
        headers[in.PickValueInArray(_headerNames)] = in.ConsumeRandomLengthString(400);
    }
    const std::string fromName = in.ConsumeRandomLengthString(400);
    const std::string subject = in.ConsumeRandomLengthString(600);
    const std::string body = in.ConsumeRemainingBytesAsString();

    std::string mail;
    try {
        mail = Osk::EmailChannel::buildEmail(
            charset, time,
            Tamtk::Utf8Array(fromName.data(), static_cast<unsigned>(fromName.size())), from, to,
            Tamtk::Utf8Array(subject.data(), static_cast<unsigned>(subject.size())),
            Tamtk::Utf8Array(body.data(), static_cast<unsigned>(body.size())), headers);
    } catch (const Tamtk::Exception&) {
        return 0;  // conversion, encoding or date failures are reported to the caller
    }
    std::set<std::string> expected = fuzzing::standardHeaders();
    for (const auto& header : headers) expected.insert(header.first);
    fuzzing::checkMail(mail, expected);
    return 0;
}
