#include <gtest/gtest.h>

#include "LogToolkit/Severity.h"

using namespace Tamlog;
using internal::severity::debug_severity;

TEST(Severity, EqualityIsByClassAndDebugMask) {
    EXPECT_FALSE(sev::critical.equal(sev::alert));
    EXPECT_TRUE(sev::warning.equal(*sev::warning.clone()));
    EXPECT_TRUE(sev::no_sev.equal(*sev::no_sev.clone()));
    EXPECT_FALSE(sev::no_sev.equal(sev::critical));
    EXPECT_FALSE(debug_severity(1).equal(debug_severity(3)));
    EXPECT_TRUE(debug_severity(3).equal(debug_severity(3)));
    EXPECT_FALSE(sev::debug_def.equal(sev::debug_all));
    EXPECT_FALSE(sev::audit_success.equal(sev::audit_fail));
}

TEST(Severity, DebugMasks) {
    EXPECT_EQ(debug_mask(sev::debug_def), 0u);
    EXPECT_EQ(debug_mask(sev::debug_all), ~std::uint64_t(0));
    EXPECT_EQ(debug_mask(sev::warning), 0u);
    SeverityBag bag;
    bag.insert(debug_severity(0x1));
    bag.insert(debug_severity(0x4));
    bag.insert(sev::info);
    EXPECT_EQ(debug_mask(bag), 0x5u);
    EXPECT_EQ(debug_mask(SeverityBag()), 0u);
}

TEST(Severity, CollectionInsertEraseIs) {
    SeverityBag bag;
    bag.insert(sev::warning);
    bag.insert(sev::warning);
    EXPECT_EQ(bag.size(), 1u) << "an equal member is not added twice";
    EXPECT_TRUE(bag.is(sev::warning));
    EXPECT_FALSE(bag.is(sev::critical));
    bag.erase(sev::warning);
    EXPECT_TRUE(bag.empty());
    EXPECT_THROW(bag.insert_clone(SeverityBag::pointer()), Tamtk::NullPointerException);
    EXPECT_THROW(bag.erase(SeverityBag::pointer()), Tamtk::NullPointerException);
}

TEST(Severity, AcceptRule) {
    struct Row {
        const char* what;
        SeverityBag accepted;
        std::uint64_t debugMask;
        const severity_mask* asked;
        bool ignored;
    };
    SeverityBag warnings(sev::warning);
    SeverityBag withDebugDef(sev::debug_def);
    const debug_severity one(0x1), three(0x3);
    const Row rows[] = {
        {"empty collection ignores everything", SeverityBag(), 0, &sev::warning, true},
        {"equal member accepted", warnings, 0, &sev::warning, false},
        {"other basic severity ignored", warnings, 0, &sev::critical, true},
        {"debug bits meet the mask", SeverityBag(), 0x2, &three, false},
        {"debug bits miss the mask", SeverityBag(), 0x2, &one, true},
        {"debug bits need the mask, not the collection", SeverityBag(one), 0x0, &one, true},
        {"debug_def has no bits: collection decides", withDebugDef, 0, &sev::debug_def, false},
        {"debug_def ignored without member even with full mask", SeverityBag(), ~0ull,
         &sev::debug_def, true},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(isSeverityIgnored(r.accepted, r.debugMask, *r.asked), r.ignored) << r.what;
    }
}

TEST(Severity, LoggableWhenAnyMemberIsAccepted) {
    SeverityBag accepted(sev::warning);
    SeverityBag record;
    record.insert(sev::info);
    EXPECT_FALSE(loggable(accepted, 0, record));
    record.insert(sev::warning);
    EXPECT_TRUE(loggable(accepted, 0, record));
    EXPECT_TRUE(loggable(SeverityBag(), 0x8, SeverityBag(debug_severity(0x8))));
    EXPECT_FALSE(loggable(accepted, 0, SeverityBag()));
}
