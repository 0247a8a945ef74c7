#include <gtest/gtest.h>

#include <sstream>

#include "LogToolkit/NullTarget.h"
#include "LogToolkit/StreamTarget.h"
#include "tamtk/LogToolkit/log_test_util.h"

using namespace Tamlog;
using namespace logtest;
using internal::severity::debug_severity;
using Tamtk::CountedRef;
using Tamtk::makeCounted;

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

TEST(SeverityNames, EveryNamedSeverityHasItsName) {
    const struct {
        const severity_mask* sev;
        const char* name;
    } rows[] = {
        {&sev::critical, "critical"},
        {&sev::alert, "alert"},
        {&sev::error, "error"},
        {&sev::warning, "warning"},
        {&sev::notice, "notice"},
        {&sev::info, "info"},
        {&sev::audit_success, "audit_success"},
        {&sev::audit_fail, "audit_fail"},
        {&sev::no_sev, "none"},
        {&sev::debug_def, "debug"},
        {&sev::debug_all, "debug(0xffffffffffffffff)"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(severityName(*r.sev), r.name);
    }
    EXPECT_EQ(severityName(internal::severity::basic_severity<31>()), "unknown");
    EXPECT_EQ(severityNames(bagOf({&sev::warning, &sev::notice})), "warning|notice");
    EXPECT_EQ(severityNames(SeverityBag()), "");
}

TEST(TargetSettings, AcceptAndRefuseRouteDebugBitsToTheMask) {
    TargetSettings s;
    s.accept(debug_severity(0x5));
    s.accept(sev::warning);
    s.accept(sev::debug_def);  // no bits: a member like any other
    EXPECT_EQ(s.debugMask(), 0x5u);
    EXPECT_TRUE(s.severities().is(sev::warning));
    EXPECT_TRUE(s.severities().is(sev::debug_def));
    EXPECT_FALSE(s.isSeverityIgnored(debug_severity(0x4)));
    s.refuse(debug_severity(0x4));
    EXPECT_EQ(s.debugMask(), 0x1u);
    EXPECT_TRUE(s.isSeverityIgnored(debug_severity(0x4)));
    s.refuse(bagOf({&sev::warning, &sev::debug_def}));
    EXPECT_TRUE(s.severities().empty());
}

TEST(TargetSettings, CloneKeepsTheDynamicType) {
    StreamTargetSettings s(SeverityBag(sev::info), 0x8);
    s.setBuffering(StdErrBuffering::streamBuffered);
    CountedRef<TargetSettings> copy = s.clone();
    ASSERT_NE(copy.as<StreamTargetSettings>(), nullptr);
    EXPECT_EQ(copy.as<StreamTargetSettings>()->buffering(), StdErrBuffering::streamBuffered);
    EXPECT_EQ(copy->debugMask(), 0x8u);
    EXPECT_TRUE(copy->severities().is(sev::info));
    EXPECT_EQ(copy->typeName(), "Tamlog::StreamTargetSettings");
}

TEST(Target, MaskOperationsAndDefaults) {
    NullTarget t("null");
    EXPECT_EQ(t.getDefaultSevMask().size(), 8u) << "every named severity but no_sev";
    EXPECT_FALSE(t.isSeverityIgnored(sev::audit_fail));
    EXPECT_TRUE(t.isSeverityIgnored(sev::no_sev));
    EXPECT_TRUE(t.isSeverityIgnored(sev::debug_all));

    t.setSevMask(debug_severity(0x30));
    t.resetSevMask(bagOf({&sev::info, &sev::notice}));
    EXPECT_EQ(t.getDebugLevel(), 0x30u);
    EXPECT_FALSE(t.isSeverityIgnored(debug_severity(0x10)));
    EXPECT_TRUE(t.isSeverityIgnored(sev::info));

    const SeverityBag record = bagOf({&sev::info, &sev::error, &sev::debug_all});
    const SeverityBag usable = t.useableSeverities(record);
    EXPECT_EQ(usable.size(), 2u);
    EXPECT_TRUE(usable.is(sev::error));
    EXPECT_TRUE(usable.is(sev::debug_all));
    EXPECT_TRUE(t.loggable(record));
    EXPECT_FALSE(t.loggable(SeverityBag(sev::info)));

    t.resetSevMask();
    EXPECT_EQ(t.getDebugLevel(), 0u);
    EXPECT_FALSE(t.isSeverityIgnored(sev::info));
}

TEST(Target, GetSettingsIsACopyAndCloneIsIndependent) {
    NullTarget t("null");
    CountedRef<TargetSettings> s = t.getSettings();
    s->setSeverities(SeverityBag());
    EXPECT_FALSE(t.isSeverityIgnored(sev::warning)) << "changing the copy changed the target";
    t.setSettings(s);
    EXPECT_TRUE(t.isSeverityIgnored(sev::warning));

    CountedRef<Target> clone = t.do_clone();
    EXPECT_EQ(clone->name(), "null");
    clone->setSevMask(sev::warning);
    EXPECT_TRUE(t.isSeverityIgnored(sev::warning)) << "the clone shares settings with the original";
}

TEST(StreamTarget, WritesOneLineWithNamesTextAndLocation) {
    std::ostringstream out;
    LockedStreamTarget t("capture", out);
    InfoBag info{{"rcpt", "ops@example.org"}, {"attempt", "2"}};
    t.sendlog(bagOf({&sev::warning, &sev::notice}), here, "delivery", "mail relay 50% down", info);
    EXPECT_EQ(out.str(),
              "EVENT: delivery SEV: warning|notice WHY: mail relay 50% down "
              "INFO: attempt=2, rcpt=ops@example.org  [mailer.cpp:42 in void Mailer::send()]\n");

    out.str("");
    t.sendlog(sev::critical, Tamtk::Location("x.cpp", 7, ""), "render", "no template");
    EXPECT_EQ(out.str(), "EVENT: render SEV: critical WHY: no template  [x.cpp:7]\n")
        << "an empty function text is left out";

    out.str("");
    t.sendlog(sev::warning, Tamtk::Location(), "report_error", "disk full");
    EXPECT_EQ(out.str(), "EVENT: report_error SEV: warning WHY: disk full\n")
        << "a record of unknown origin carries no location";

    out.str("");
    t.sendlog(sev::no_sev, here, "ignored", "not accepted");
    EXPECT_EQ(out.str(), "") << "a record the target does not accept is dropped";
}

TEST(StreamTarget, FormatterIsReplaceableAndFailuresAreReported) {
    std::ostringstream out;
    LockedStreamTarget t("capture", out);
    EXPECT_THROW(t.setFormatter(RecordFormatter()), LogException);
    t.setFormatter([](const SeverityBag& s, const Tamtk::Location&, const Event& e,
                      const std::string& why,
                      const InfoBag&) { return severityNames(s) + "/" + e + "/" + why; });
    t.sendlog(sev::error, here, "e", "w");
    EXPECT_EQ(out.str(), "error/e/w\n");

    t.setFormatter([](const SeverityBag&, const Tamtk::Location&, const Event&, const std::string&,
                      const InfoBag&) -> std::string { throw std::runtime_error("layout broke"); });
    try {
        t.sendlog(sev::error, here, "e", "w");
        FAIL() << "a failing formatter went unnoticed";
    } catch (const SendlogFailure& f) {
        EXPECT_NE(std::string(f.composed().c_str()).find("layout broke"), std::string::npos);
    }
}

TEST(StreamTarget, BrokenStreamRaisesAndRecovers) {
    BrokenBuf broken;
    std::ostream out(&broken);
    LockedStreamTarget t("broken", out);
    EXPECT_THROW(t.sendlog(sev::error, here, "e", "w"), SendlogFailure);
    EXPECT_TRUE(out.good()) << "the stream's state is cleared for the next record";
}

TEST(StreamTarget, BufferingDecidesFlushes) {
    CountingBuf buf;
    std::ostream out(&buf);
    LockedStreamTarget t("counting", out);
    t.sendlog(sev::error, here, "e", "w");
    EXPECT_EQ(buf.syncs, 1);
    t.setBuffering(StdErrBuffering::streamBuffered);
    t.sendlog(sev::error, here, "e", "w");
    EXPECT_EQ(buf.syncs, 1);
}

TEST(StreamTarget, RefusesSettingsOfAnotherKind) {
    std::ostringstream out;
    CountedRef<TargetSettings> plain = makeCounted<TargetSettings>();
    try {
        LockedStreamTarget t("capture", out, plain);
        FAIL() << "plain settings were accepted";
    } catch (const LogException& e) {
        EXPECT_STREQ(e.what(),
                     "Settings of type Tamlog::TargetSettings is incompatiable with "
                     "StreamTargetSettings");
    }
    LockedStreamTarget t("capture", out);
    EXPECT_THROW(t.setSettings(plain), LogException);
    EXPECT_NO_THROW(t.setSettings(makeCounted<StreamTargetSettings>()));
}

TEST(StreamTarget, WideStreamsGetWidenedText) {
    std::wostringstream out;
    WideLockedStreamTarget t("wide", out);
    t.setFormatter([](const SeverityBag&, const Tamtk::Location&, const Event&,
                      const std::string& why, const InfoBag&) { return why; });
    // Two- and three-byte sequences, then a stray continuation byte and a
    // truncated sequence, which both become U+FFFD.
    t.sendlog(sev::error, here, "e", "K\xC3\xB6ln \xE2\x82\xAC \x80 \xE2\x82");
    EXPECT_EQ(out.str(), L"K\u00F6ln \u20AC \uFFFD \uFFFD\n");
}

TEST(Widen, RejectsOverlongAndSurrogates) {
    const struct {
        const char* in;
        const wchar_t* out;
    } rows[] = {
        {"\xC0\xAF", L"\uFFFD\uFFFD"},    // C0 is never a lead byte
        {"\xE0\x80\xAF", L"\uFFFD"},      // overlong three-byte form
        {"\xED\xA0\x80", L"\uFFFD"},      // surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD"},  // beyond U+10FFFF
        {"\xF0\x9F\x93\xA7", L"\U0001F4E7"},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(internal::stream::widenUtf8(r.in), r.out) << r.in;
    }
}
