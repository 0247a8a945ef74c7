#include <gtest/gtest.h>

#include <sstream>

#include "LogToolkit/NullTarget.h"
#include "LogToolkit/StreamTarget.h"
#include "tamtk/LogToolkit/log_test_util.h"

using namespace Tamlog;
using namespace logtest;
using internal::severity::debug_severity;
using Tamtk::CountedRef;

namespace {

const Tamtk::Location here("mailer.cpp", 42, "void Mailer::send()");

// Counts flushes, to tell the buffering modes apart.
class CountingBuf : public std::stringbuf {
public:
    int syncs = 0;

protected:
    int sync() override {
        ++syncs;
        return std::stringbuf::sync();
    }
};

// Refuses every write.
class BrokenBuf : public std::streambuf {
protected:
    int_type overflow(int_type) override { return traits_type::eof(); }
    std::streamsize xsputn(const char*, std::streamsize) override { return 0; }
};

}  // namespace

TEST(Target, MasksDecideWhatIsAccepted) {
    NullTarget t("null");
    EXPECT_FALSE(t.isSeverityIgnored(sev::audit_fail)) << "every named severity by default";
    EXPECT_TRUE(t.isSeverityIgnored(sev::no_sev));
    EXPECT_TRUE(t.isSeverityIgnored(sev::debug_all));

    t.setSevMask(debug_severity(0x30));
    t.resetSevMask(bagOf({&sev::info, &sev::notice}));
    EXPECT_TRUE(t.isSeverityIgnored(sev::info));
    const SeverityBag record = bagOf({&sev::info, &sev::error, &sev::debug_all});
    EXPECT_EQ(severityNames(t.useableSeverities(record)), "error|debug(0xffffffffffffffff)");
    EXPECT_FALSE(t.loggable(SeverityBag(sev::info)));

    // Settings handed out are a copy, and so are a clone's.
    CountedRef<TargetSettings> s = t.getSettings();
    s->refuse(debug_severity(0x10));
    s->refuse(sev::warning);
    EXPECT_FALSE(t.isSeverityIgnored(sev::warning));
    t.setSettings(s);
    EXPECT_EQ(t.getDebugLevel(), 0x20u);
    EXPECT_TRUE(t.isSeverityIgnored(sev::warning));
    t.do_clone()->setSevMask(sev::warning);
    EXPECT_TRUE(t.isSeverityIgnored(sev::warning)) << "a clone has settings of its own";
    t.resetSevMask();
    EXPECT_EQ(t.getDebugLevel(), 0u);
    EXPECT_FALSE(t.isSeverityIgnored(sev::info));
}

TEST(StreamTarget, WritesOneLinePerAcceptedRecord) {
    CountingBuf buf;
    std::ostream out(&buf);
    LockedStreamTarget t("capture", out);
    t.setSevMask(sev::no_sev);
    const internal::severity::basic_severity<31> unknown;
    t.sendlog(bagOf({&sev::warning, &sev::no_sev, &sev::debug_def, &unknown}), here, "delivery",
              "relay 50% down", InfoBag{{"rcpt", "ops@example.org"}, {"attempt", "2"}});
    t.sendlog(sev::critical, Tamtk::Location("x.cpp", 7, ""), "render", "no template");
    t.sendlog(sev::debug_all, here, "ignored", "not accepted");
    EXPECT_EQ(buf.str(),
              "EVENT: delivery SEV: warning|none|debug|unknown WHY: relay 50% down "
              "INFO: attempt=2, rcpt=ops@example.org  [mailer.cpp:42 in void Mailer::send()]\n"
              "EVENT: render SEV: critical WHY: no template  [x.cpp:7]\n");
    EXPECT_EQ(buf.syncs, 2) << "each record flushed";
    t.setBuffering(StdErrBuffering::streamBuffered);
    t.sendlog(sev::error, here, "e", "w");
    EXPECT_EQ(buf.syncs, 2);

    buf.str("");
    t.sendlog(sev::warning, Tamtk::Location(), "report_error", "disk full");
    EXPECT_EQ(buf.str(), "EVENT: report_error SEV: warning WHY: disk full\n")
        << "a record of unknown origin carries no location";
    buf.str("");
    t.setFormatter([](const SeverityBag& s, const Tamtk::Location&, const Event& e,
                      const std::string& why,
                      const InfoBag&) { return severityNames(s) + "/" + e + "/" + why; });
    t.sendlog(sev::error, here, "e", "w");
    EXPECT_EQ(buf.str(), "error/e/w\n");
    t.setFormatter([](const SeverityBag&, const Tamtk::Location&, const Event&, const std::string&,
                      const InfoBag&) -> std::string { throw std::runtime_error("layout broke"); });
    try {
        t.sendlog(sev::error, here, "e", "w");
        ADD_FAILURE() << "a failing formatter went unnoticed";
    } catch (const SendlogFailure& f) {
        EXPECT_NE(std::string(f.composed().c_str()).find("layout broke"), std::string::npos);
    }

    BrokenBuf broken;
    std::ostream brokenOut(&broken);
    LockedStreamTarget b("broken", brokenOut);
    EXPECT_THROW(b.sendlog(sev::error, here, "e", "w"), SendlogFailure);
    EXPECT_TRUE(brokenOut.good()) << "the stream's state is cleared for the next record";
}

// Malformed and out-of-range sequences each become U+FFFD.
TEST(StreamTarget, WideStreamsGetWidenedText) {
    const struct {
        const char* in;
        const wchar_t* out;
    } rows[] = {
        {"K\xC3\xB6ln \xE2\x82\xAC", L"K\u00F6ln \u20AC"},
        {"\xF0\x9F\x93\xA7", L"\U0001F4E7"},
        {"\x80 \xE2\x82", L"\uFFFD \uFFFD"},  // stray continuation, cut short
        {"\xC0\xAF", L"\uFFFD\uFFFD"},        // C0 is never a lead byte
        {"\xE0\x80\xAF", L"\uFFFD"},          // overlong three-byte form
        {"\xED\xA0\x80", L"\uFFFD"},          // surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD"},      // beyond U+10FFFF
    };
    for (const auto& r : rows) {
        EXPECT_EQ(internal::stream::widenUtf8(r.in), r.out) << r.in;
    }
    std::wostringstream out;
    WideLockedStreamTarget t("wide", out);
    t.sendlog(sev::error, Tamtk::Location("x", 1, ""), "e", "K\xC3\xB6ln \x80");
    EXPECT_EQ(out.str(), L"EVENT: e SEV: error WHY: K\u00F6ln \uFFFD  [x:1]\n");
}
