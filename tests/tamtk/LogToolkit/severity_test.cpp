#include <gtest/gtest.h>

#include "LogToolkit/Severity.h"
#include "tamtk/LogToolkit/log_test_util.h"

using namespace Tamlog;
using internal::severity::debug_severity;

TEST(Severity, EqualityMasksAndCollections) {
    const debug_severity one(1), three(3);
    EXPECT_TRUE(sev::warning.equal(*sev::warning.clone()));
    EXPECT_TRUE(three.equal(debug_severity(3)));
    EXPECT_FALSE(one.equal(three));
    EXPECT_FALSE(sev::critical.equal(sev::alert));
    EXPECT_FALSE(sev::debug_def.equal(sev::debug_all));
    EXPECT_EQ(debug_mask(sev::debug_def), 0u);
    EXPECT_EQ(debug_mask(sev::debug_all), ~std::uint64_t(0));

    SeverityBag bag;
    bag.insert(debug_severity(0x1));
    bag.insert(debug_severity(0x4));
    bag.insert(sev::warning);
    bag.insert(sev::warning);
    EXPECT_EQ(bag.size(), 3u) << "an equal member is not added twice";
    EXPECT_EQ(debug_mask(bag), 0x5u);
    EXPECT_TRUE(bag.is(sev::warning));
    EXPECT_FALSE(bag.is(sev::critical));
    bag.erase(sev::warning);
    EXPECT_FALSE(bag.is(sev::warning));
    EXPECT_THROW(bag.insert_clone(SeverityBag::pointer()), Tamtk::NullPointerException);
    EXPECT_THROW(bag.erase(SeverityBag::pointer()), Tamtk::NullPointerException);
}

TEST(Severity, AcceptRule) {
    SeverityBag warnings(sev::warning);
    SeverityBag withDebugDef(sev::debug_def);
    const debug_severity one(0x1), three(0x3), eight(0x8);
    const struct {
        const char* what;
        SeverityBag accepted;
        std::uint64_t debugMask;
        SeverityBag record;
        bool ignored;
    } rows[] = {
        {"empty collection ignores everything", SeverityBag(), 0, warnings, true},
        {"equal member accepted", warnings, 0, warnings, false},
        {"other basic severity ignored", warnings, 0, SeverityBag(sev::critical), true},
        {"debug bits meet the mask", SeverityBag(), 0x2, SeverityBag(three), false},
        {"debug bits miss the mask", SeverityBag(), 0x2, SeverityBag(one), true},
        {"debug bits need the mask", SeverityBag(one), 0x0, SeverityBag(one), true},
        {"debug_def has no bits: collection decides", withDebugDef, 0, withDebugDef, false},
        {"debug_def needs a member", SeverityBag(), ~0ull, withDebugDef, true},
        {"any member is enough", warnings, 0, logtest::bagOf({&sev::info, &sev::warning}), false},
        {"a record of only debug bits", SeverityBag(), 0x8, SeverityBag(eight), false},
        {"an empty record", warnings, 0, SeverityBag(), true},
    };
    for (const auto& r : rows) {
        EXPECT_EQ(!loggable(r.accepted, r.debugMask, r.record), r.ignored) << r.what;
        if (r.record.size() == 1) {
            EXPECT_EQ(isSeverityIgnored(r.accepted, r.debugMask, **r.record.begin()), r.ignored)
                << r.what;
        }
    }
}
