#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "LogToolkit/LogTarget.h"
#include "LogToolkit/NullTarget.h"
#include "tamtk/LogToolkit/log_test_util.h"

using namespace Tamlog;
using namespace logtest;
using Tamtk::CountedRef;
using Tamtk::makeCounted;

namespace {

const Tamtk::Location here("host.cpp", 9, "int main()");

CountedRef<Target> null(const std::string& name) {
    return makeCounted<NullTarget>(name);
}

// Removes the named targets when a test ends, however it ends.
struct Unregister {
    std::vector<std::string> names;
    ~Unregister() {
        for (const std::string& n : names)
            messageOf<Tamtk::Exception>([&] { LogTarget::deregister(n); });
    }
};

// Consults the registry while the registry checks it; "reg.choosy" then
// refuses every settings, its own included.
class Curious : public NullTarget {
public:
    using NullTarget::NullTarget;
    mutable std::string seen;
    void assert_settings(CountedRef<TargetSettings>) const override {
        seen = messageOf<LogException>([] { LogTarget::byname("anything"); });
        if (name() == "reg.choosy")
            TAMTK_THROW(LogException, "test", "never suitable");
    }
};

// Writes nothing and always fails.
class Failing : public NullTarget {
public:
    using NullTarget::NullTarget;
    void do_sendlog(const SeverityBag&, const Tamtk::Location&, const Event&, const std::string&,
                    const InfoBag&) const override {
        TAMTK_THROW(SendlogFailure, "test", "disk gone");
    }
};

}  // namespace

TEST(Registry, RefusedOperationsSayWhy) {
    Unregister cleanup{{"reg.dup", "reg.curious"}};
    LogTarget::registerTarget(null("reg.dup"));
    LogTarget::initStdErr();
    std::ostringstream out;
    LockedStreamTarget stream("capture", out);
    const std::string unknown = "Could not acquire target by name of reg.none";
    const std::string reserved = "This is a reserved entry and cannot be removed";
    const std::string incompatible =
        "Settings of type Tamlog::TargetSettings is incompatiable with StreamTargetSettings";
    auto plain = [] { return makeCounted<TargetSettings>(); };
    const struct {
        std::function<void()> op;
        std::string message;
        bool targetUnknown = false;
    } rows[] = {
        {[] { LogTarget::registerTarget(null("reg.dup")); },
         "A target by name of reg.dup already exists"},
        {[] { LogTarget::registerTarget(null("")); }, "Empty string is reserved"},
        {[] { LogTarget::registerTarget(makeCounted<Curious>("reg.choosy")); },
         "Failed to add target"},
        {[] { LogTarget::deregister("stderr"); }, reserved},
        {[] { LogTarget::deregister("oslogger"); }, reserved},
        {[] { LogTarget::deregister(""); }, reserved},
        {[&] { LogTarget::updateSettings("stderr", plain()); },
         "A settings instance of Tamlog::TargetSettings is not valid for a target of "
         "Tamlog::StreamTarget<Tamlog::BasicStreamPolicy<Tamlog::ResourceNoLock>, char>"},
        {[&] { LockedStreamTarget("capture", out, plain()); }, incompatible},
        {[&] { stream.setSettings(plain()); }, incompatible},
        {[&] { stream.setFormatter(RecordFormatter()); },
         "In attempt to set new formatter for StreamTarget"},
        {[] { LogTarget::byname("reg.choosy"); }, "Could not acquire target by name of reg.choosy",
         true},
        {[] { LogTarget::byname("reg.none"); }, unknown, true},
        {[] { LogTarget::deregister("reg.none"); }, unknown, true},
        {[] { LogTarget::getSettings("reg.none"); }, unknown, true},
        {[&] { LogTarget::updateSettings("reg.none", plain()); }, unknown, true},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(r.targetUnknown ? messageOf<TargetUnknown>(r.op) : messageOf<LogException>(r.op),
                  r.message);
    }
    EXPECT_NO_THROW(stream.setSettings(makeCounted<StreamTargetSettings>()));

    // A target that looks itself up while being checked is told, not deadlocked.
    CountedRef<Curious> curious = makeCounted<Curious>("reg.curious");
    EXPECT_EQ(messageOf<LogException>([&] { LogTarget::registerTarget(curious); }), "no exception");
    EXPECT_EQ(curious->seen, "Unexpected error when attemptiong to acquire target");
}

TEST(Registry, RegisterLookupUpdateDeregister) {
    Unregister cleanup{{"reg.a", "reg.b", "reg.c"}};
    LogTarget a = LogTarget::registerTarget(null("reg.a"));
    LogTarget c = LogTarget::registerTarget(null("reg.c"));
    LogTarget b = LogTarget::registerTarget(null("reg.b"));
    EXPECT_EQ(LogTarget::byname("reg.a").target().get(), a.target().get());

    CountedRef<TargetSettings> s = LogTarget::getSettings("reg.a");
    s->setSeverities(SeverityBag(sev::alert));
    EXPECT_TRUE(a.loggable(sev::warning)) << "getSettings handed out the live settings";
    LogTarget::updateSettings("reg.a", s);
    EXPECT_FALSE(a.loggable(sev::warning));

    // Sets are ordered by name, one member per name.
    LogTargetSet set = c | a;
    set |= b;
    set |= LogTarget::byname("reg.a");
    std::vector<std::string> names;
    for (const LogTarget& t : set) names.push_back(t.name());
    EXPECT_EQ(names, (std::vector<std::string>{"reg.a", "reg.b", "reg.c"}));
    EXPECT_EQ((a | ((c | b) | (a | c))).size(), 3u);

    const internal::severity::debug_severity bit(0x40);
    LogTarget::foreachSetSevMask(bit);
    EXPECT_TRUE(loggable(LogTargetSet{c}, bit));
    c.target()->resetSevMask(sev::error);
    LogTarget::foreachResetSevMask();
    EXPECT_FALSE(b.loggable(bit));
    EXPECT_TRUE(c.loggable(sev::error)) << "reset restores the defaults";

    LogTarget::deregister("reg.a");
    EXPECT_THROW(LogTarget::byname("reg.a"), TargetUnknown);
    EXPECT_TRUE(a.loggable(sev::alert)) << "an old handle keeps its target";
    EXPECT_NO_THROW(LogTarget::registerTarget(null("reg.a"))) << "the name is free again";
}

TEST(Registry, SendlogReachesEveryAcceptingTargetDespiteFailures) {
    Unregister cleanup{{"reg.fail", "reg.out"}};
    std::ostringstream out;
    LogTarget failing = LogTarget::registerTarget(makeCounted<Failing>("reg.fail"));
    LogTarget capture = LogTarget::registerTarget(makeCounted<LockedStreamTarget>("reg.out", out));
    // "reg.fail" sorts first: its failure must not keep the record from "reg.out".
    EXPECT_THROW(sendlog(failing | capture, sev::warning, here, "report", "queue full"),
                 SendlogFailure);
    EXPECT_EQ(out.str(),
              "EVENT: report SEV: warning WHY: queue full  [host.cpp:9 in int main()]\n");

    capture.target()->resetSevMask(sev::info);
    failing.target()->resetSevMask(sev::info);
    EXPECT_FALSE(loggable(failing | capture, sev::info));
    EXPECT_TRUE(loggable(failing | capture, sev::error));
    EXPECT_NO_THROW(sendlog(failing | capture, sev::info, here, "report", "nobody listens"));
}

TEST(Registry, StdErrCanBeCapturedAndKeepsItsMaskWhenReinstalled) {
    std::ostringstream out;
    LogTarget::initStdErr(out);
    LogTarget::byname("stderr").target()->setSevMask(internal::severity::debug_severity(0x2));
    LogTarget::byname("stderr").target()->resetSevMask(sev::info);
    LogTarget err = LogTarget::initStdErr(out, StdErrBuffering::streamBuffered);
    EXPECT_EQ(err.target()->getDebugLevel(), 0x2u);
    EXPECT_FALSE(err.loggable(sev::info));
    sendlog(err, sev::critical, here, "report", "template missing");
    EXPECT_EQ(out.str(),
              "EVENT: report SEV: critical WHY: template missing  [host.cpp:9 in int main()]\n");

    // Only its kind is checked: writing would turn the process's stderr wide.
    LogTarget wide = LogTarget::initStdErr(StdErrBuffering::flushEachRecord, StdErrCharType::wide);
    ASSERT_NE(wide.target().as<WideStdErrTarget>(), nullptr);
    EXPECT_EQ(wide.target()->getDebugLevel(), 0x2u);
    LogTarget restored = LogTarget::initStdErr();
    EXPECT_EQ(&restored.target().as<StdErrTarget>()->stream(), &std::cerr);
    restored.target()->resetSevMask();
}
