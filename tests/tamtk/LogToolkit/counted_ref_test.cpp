#include <gtest/gtest.h>

#include "AgentTestSupport.h"
#include "LogToolkit/CountedRef.h"

using Tamtk::CountedRef;

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

TEST(CountedRef, TheLastReferenceDeletesOnce) {
    int goneA = 0, goneB = 0;
    {
        CountedRef<Counted> a(new Counted(&goneA));
        CountedRef<Base> b(new Counted(&goneB));
        {
            CountedRef<Base> asBase(a);  // converted references share the count
            EXPECT_EQ(asBase.as<Counted>(), a.get());
            const CountedRef<Base>& alias = asBase;  // through an alias: compilers warn about x = x
            asBase = alias;
            asBase = b;
            EXPECT_EQ(b.use_count(), 2);
        }
        EXPECT_EQ(goneA + goneB, 0);
        b = CountedRef<Base>(a);
        EXPECT_EQ(goneB, 1) << "reassigning the last reference deletes its object";
        EXPECT_EQ(Tamtk::makeCounted<Base>().as<Counted>(), nullptr);
        EXPECT_EQ(AgentTest::messageOf<Tamtk::NullPointerException>(
                      [] { CountedRef<Base>(static_cast<Base*>(nullptr)); }),
                  "Cannot count null references");
    }
    EXPECT_EQ(goneA, 1);
    EXPECT_EQ(goneB, 1);
}
