#include <gtest/gtest.h>

#include "LogToolkit/CountedRef.h"

using Tamtk::CountedRef;
using Tamtk::makeCounted;

namespace {

struct Base {
    virtual ~Base() {}
};

// Counts its destructions, and is deleted through Base only when the
// reference remembers the type it was made with.
struct Counted : Base {
    explicit Counted(int* gone) : gone_(gone) {}
    ~Counted() override { ++*gone_; }
    int* gone_;
};

}  // namespace

TEST(CountedRef, RefusesNull) {
    try {
        CountedRef<Base> r(static_cast<Base*>(nullptr));
        FAIL() << "a null reference was accepted";
    } catch (const Tamtk::NullPointerException& e) {
        EXPECT_STREQ(e.what(), "Cannot count null references");
    }
}

TEST(CountedRef, LastCopyDeletesOnce) {
    int gone = 0;
    {
        CountedRef<Counted> a(new Counted(&gone));
        EXPECT_EQ(a.use_count(), 1);
        {
            CountedRef<Counted> b(a);
            CountedRef<Base> asBase(b);  // converted references share the count
            EXPECT_EQ(a.use_count(), 3);
            EXPECT_EQ(asBase.get(), static_cast<Base*>(a.get()));
            EXPECT_EQ(asBase.as<Counted>(), a.get());
        }
        EXPECT_EQ(gone, 0);
        EXPECT_EQ(a.use_count(), 1);
    }
    EXPECT_EQ(gone, 1);
}

TEST(CountedRef, AssignmentMovesBetweenObjects) {
    int goneA = 0, goneB = 0;
    CountedRef<Base> a(new Counted(&goneA));
    CountedRef<Base> b(new Counted(&goneB));
    const CountedRef<Base>& alias = a;  // through an alias: compilers warn about a = a
    a = alias;                          // self-assignment keeps the object
    EXPECT_EQ(goneA, 0);
    EXPECT_EQ(a.use_count(), 1);
    a = b;
    EXPECT_EQ(goneA, 1);
    EXPECT_EQ(b.use_count(), 2);
    EXPECT_EQ(a.get(), b.get());
}

TEST(CountedRef, AsIsNullForOtherTypes) {
    CountedRef<Base> plain = makeCounted<Base>();
    EXPECT_EQ(plain.as<Counted>(), nullptr);
}
