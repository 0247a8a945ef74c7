// Email address parsing: the constructors, every DomainCheck value, the
// setters and both written forms. An address either raises
// EmailAddrException or is one that reads back as itself.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <string>

#include "FuzzCheck.h"
#include "NetToolkit/EmailAddr.h"

using fuzzing::check;
using Tamnet::EmailAddr;

namespace {

// A valid address reads back from its RFC 821 form as the same mailbox; a
// parsed one (its quoting already normalised) as the very same address.
void _checkRoundTrip(const EmailAddr& addr, EmailAddr::DomainCheck domainCheck, bool parsed) {
    if (!addr)
        return;
    const std::string written = addr.asRFC821String(false);
    // Parsing quotes a local part given to setLocalPart ("a..b" becomes "\"a..b\"").
    const std::uint32_t maxLocal =
        parsed ? addr.maxLocal()
               : std::max<std::uint32_t>(addr.maxLocal(), 2 * addr.localPart().size() + 2);
    // A part set by hand may not fit its limit once quoted: nothing to compare.
    std::string canonical;
    try {
        canonical = addr.asRFC821String(true);
    } catch (const Tamnet::EmailAddrException&) {
        check(!parsed, "a parsed address cannot be written in canonical quoting", written);
    }
    try {
        const EmailAddr again(written, addr.maxDomain(), maxLocal, domainCheck);
        check(canonical.empty() || again.asRFC821String(true) == canonical,
              "address does not read back as the same mailbox", written);
        check(!parsed || again == addr, "parsed address does not read back as itself", written);
    } catch (const Tamnet::EmailAddrException& e) {
        fuzzing::fail("the written form of a valid address is refused", written + "\n" + e.what());
    }
    // Written into headers and SMTP commands: no line break, no early NUL.
    for (const std::string& text : {written, addr.asPlainString(false)}) {
        check(domainCheck == EmailAddr::NoDomainCheck ||
                  text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos,
              "a written address holds CR, LF or NUL", text);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int form = in.ConsumeIntegralInRange(0, 3);
    const EmailAddr::DomainCheck domainCheck = in.ConsumeIntegralInRange<unsigned>(0, 5);
    const std::uint32_t maxDomain = in.ConsumeBool()
                                        ? EmailAddr::DefaultMaxDomain
                                        : in.ConsumeIntegralInRange<std::uint32_t>(0, 300);
    const std::uint32_t maxLocal = in.ConsumeBool()
                                       ? EmailAddr::DefaultMaxLocal
                                       : in.ConsumeIntegralInRange<std::uint32_t>(0, 80);
    const std::string second = in.ConsumeRandomLengthString(300);
    const std::string text = in.ConsumeRemainingBytesAsString();

    // Parsing from text alone or by assignment is form 0 with the defaults.
    try {
        switch (form) {
            case 0: {
                const EmailAddr addr(text, maxDomain, maxLocal, domainCheck);
                _checkRoundTrip(addr, domainCheck, true);
                break;
            }
            case 1: {
                const EmailAddr addr(second, text);
                check(static_cast<bool>(addr), "an address made of two verified parts is empty");
                _checkRoundTrip(addr, EmailAddr::DefaultDomainCheck, false);
                break;
            }
            case 2: {
                EmailAddr addr("someone@example.com");
                addr.setLocalPart(second);
                addr.setDomain(text);
                _checkRoundTrip(addr, EmailAddr::DefaultDomainCheck, false);
                addr.normaliseQuoting(false);
                _checkRoundTrip(addr, EmailAddr::DefaultDomainCheck, false);
                // Always quoted, the local part keeps its canonical form.
                const std::string canonical = addr.asRFC821String(true);
                addr.normaliseQuoting(true);
                check(EmailAddr(addr.asRFC821String(false)).asRFC821String(true) == canonical,
                      "quoting changed the canonical form", canonical);
                break;
            }
            default: {
                EmailAddr addr("someone@example.com");
                addr.addSourceRoute(second);
                _checkRoundTrip(addr, EmailAddr::DefaultDomainCheck, false);
                std::string route, local, domain;
                EmailAddr::split(text, route, local, domain, maxDomain, maxLocal, domainCheck);
                check(!local.empty() && !domain.empty(), "split gave an empty part", text);
                break;
            }
        }
    } catch (const Tamnet::EmailAddrException&) {
        // A refused address is a clear report; anything else escapes and is a finding.
    }
    return 0;
}
