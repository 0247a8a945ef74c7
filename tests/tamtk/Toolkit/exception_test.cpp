#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "AgentTestSupport.h"
#include "Osk/ChannelCfg.h"
#include "Toolkit/Abi.h"
#include "Toolkit/Exceptions.h"
#include "Toolkit/Locks.h"

using Tamtk::Exception;
using Tamtk::ExceptionString;
using Tamtk::Location;

namespace {

Exception make(const std::string& text) {
    return Exception(ExceptionString(text), Location("unit", 42, "void f(int)"));
}

struct NotAnException {};

}  // namespace

// Around the length where texts move from inline storage to the heap.
TEST(Exception, MessageAndLocationSurviveCopying) {
    for (std::size_t length : {0u, 10u, 255u, 256u, 257u, 4000u}) {
        const std::string text(length, 'm');
        Exception original = make(text);
        Exception copied(original);
        Exception assigned = make("other");
        assigned = original;
        for (const Exception* e : {&copied, &assigned}) {
            EXPECT_EQ(std::string(e->what()), text) << length;
            std::ostringstream where;
            where << e->location();
            EXPECT_EQ(where.str(), "unit:42 in void f(int)");
        }
    }
    EXPECT_STREQ(ExceptionString(static_cast<const char*>(nullptr), 5).c_str(), "");
    EXPECT_STREQ(Exception(ExceptionString(), Location()).what(), "") << "never null";
}

TEST(Exception, WrittenFormsAndMacros) {
    std::ostringstream os;
    os << make("boom") << '|' << Location("src", 7, "");
    EXPECT_EQ(os.str(), "boom [unit:42 in void f(int)]|src:7");
    Tamtk::LockFailureException wrapped(make("inner"), Location("Locks", 3, "f"));
    EXPECT_NE(std::string(wrapped.composed().c_str()).find("inner"), std::string::npos);

    int line = 0;
    try {
        line = __LINE__ + 1;
        TAMTK_THROW(Tamtk::BadValueException, "unit-src", "value " << 7 << " is bad");
    } catch (const Tamtk::BadValueException& e) {
        EXPECT_STREQ(e.what(), "value 7 is bad");
        EXPECT_STREQ(e.location().file.c_str(), "unit-src");
        EXPECT_EQ(e.location().line, line);
        EXPECT_NE(std::string(e.location().function.c_str()).find("TestBody"), std::string::npos);
    }
    const char* pMessage = nullptr;
    try {
        TAMTK_ASSERT(pMessage, "email_channel");
        ADD_FAILURE() << "no exception";
    } catch (const Tamtk::AssertionException& e) {
        EXPECT_STREQ(e.what(), "pMessage");
        EXPECT_STREQ(e.location().file.c_str(), "email_channel");
    }
}

// A handler for the root, or for a family's parent, must see every family.
template <class Root, class... Families>
constexpr bool caughtBy = (std::is_base_of<Root, Families>::value && ...);
static_assert(caughtBy<Exception, Tamnet::EmailAddrException, Tamnet::NetAddrInvalid,
                       Tamnet::Rfc2047Exception, Tamxml::ValueCastException, Tamlog::TargetUnknown,
                       Tamlog::SendlogFailure, Osk::ExceptionT<Osk::ChannelCfg>,
                       Tamtk::LoaderException, Tamtk::LockCreateException,
                       Tamtk::SingletonException, Tamtk::Utf8Exception, Tamtk::FileException,
                       Tamtk::NullPointerException, Tamtk::ExceptionT<Tamtk::exceptions::eof>,
                       Tamtk::ExceptionT<Tamtk::bad_scopelock_cast>>);
static_assert(caughtBy<Tamxml::XmlException, Tamxml::ValueCastException>);
static_assert(caughtBy<Tamlog::LogException, Tamlog::TargetUnknown, Osk::ChannelException>);

TEST(FastMutex, SerialisesThreadsAndRefusesASecondLockByItsHolder) {
    Tamtk::FastMutex m;
    {
        Tamtk::ScopeLock<Tamtk::FastMutex> hold(m);
        EXPECT_EQ(AgentTest::messageOf<Tamtk::SelfLockException>([&] { m.lock(); }),
                  "Self lock detected (RTTI of Lock=Tamtk::FastMutex)");
    }
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                Tamtk::ScopeLock<Tamtk::FastMutex> hold(m);
                ++counter;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 40000);
}

TEST(CurrentException, DescribesWhatIsInFlight) {
    EXPECT_EQ(Tamtk::internal::abi::current_exception(), "unknown exception");
    const struct {
        std::function<void()> raise;
        std::string described;
    } rows[] = {
        {[] { throw std::invalid_argument("Invalid regular expression object"); },
         "Invalid regular expression object"},
        {[] { throw make("toolkit text"); }, "toolkit text"},
        {[] { throw 5; }, "int"},
        {[] { throw NotAnException(); }, "(anonymous namespace)::NotAnException"},
    };
    for (const auto& r : rows) {
        try {
            r.raise();
        } catch (...) {
            EXPECT_EQ(Tamtk::internal::abi::current_exception(), r.described);
        }
    }
}
