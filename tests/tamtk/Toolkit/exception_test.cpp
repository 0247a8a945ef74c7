#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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
    ExceptionString fresh;
    EXPECT_EQ(fresh.c_str(), nullptr);
    EXPECT_STREQ(ExceptionString(static_cast<const char*>(nullptr), 5).c_str(), "");
    ExceptionString assigned("abc");
    assigned = fresh;
    EXPECT_EQ(assigned.c_str(), nullptr);
    EXPECT_EQ(ExceptionString("a\0b", 3).length(), 3u);
    EXPECT_STREQ(Exception(ExceptionString(), Location()).what(), "") << "never null";
}

TEST(Exception, WrittenFormsAndMacros) {
    std::ostringstream os;
    os << make("boom") << '|' << Location("src", 7, "");
    EXPECT_EQ(os.str(), "boom [unit:42 in void f(int)]|src:7");

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
TEST(Exception, FamiliesAreCaughtByTheRootAndTheirParent) {
    const Location here("unit", 1, "f");
    const std::function<void()> raisers[] = {
        [&] { throw Tamnet::EmailAddrException("e", here); },
        [&] { throw Tamnet::NetAddrInvalid("e", here); },
        [&] { throw Tamnet::Rfc2047Exception("e", here); },
        [&] { throw Tamxml::XmlException("e", here); },
        [&] { throw Tamxml::ValueCastException("e", here); },
        [&] { throw Tamlog::LogException("e", here); },
        [&] { throw Tamlog::TargetUnknown("e", here); },
        [&] { throw Tamlog::SendlogFailure("e", here); },
        [&] { throw Osk::ChannelException("e", here); },
        [&] { throw Osk::ExceptionT<Osk::ChannelCfg>("e", here); },
        [&] { throw Tamtk::LoaderException("e", here); },
        [&] { throw Tamtk::LockCreateException(here); },
        [&] { throw Tamtk::SingletonException("e", here); },
        [&] { throw Tamtk::Utf8Exception("e", here); },
        [&] { throw Tamtk::FileException("e", here); },
        [&] { throw Tamtk::NullPointerException("e", here); },
        [&] { throw Tamtk::ExceptionT<Tamtk::exceptions::eof>("e", here); },
        [&] { throw Tamtk::ExceptionT<Tamtk::bad_scopelock_cast>("e", here); },
    };
    for (std::size_t i = 0; i < sizeof raisers / sizeof raisers[0]; ++i) {
        EXPECT_THROW(raisers[i](), Exception) << "family #" << i;
    }
    EXPECT_THROW(throw Tamxml::ValueCastException("e", here), Tamxml::XmlException);
    EXPECT_THROW(throw Tamlog::TargetUnknown("x", here), Tamlog::LogException);
    EXPECT_THROW(throw Osk::ChannelException("x", here), Tamlog::LogException);
    bool siblingCaught = false;
    try {
        try {
            throw Tamxml::XmlException("x", here);
        } catch (const Tamxml::ValueCastException&) {
            siblingCaught = true;
        }
    } catch (const Tamxml::XmlException&) {
    }
    EXPECT_FALSE(siblingCaught) << "a parent is not caught as its child";
}

TEST(FastMutex, SerialisesThreadsAndRefusesASecondLockByItsHolder) {
    const Location here("Locks", 3, "f");
    Tamtk::LockFailureException wrapped(make("inner"), here);
    EXPECT_STREQ(wrapped.what(),
                 "Resource lock or scope lock could not be acquired due to lower level exception");
    EXPECT_NE(std::string(wrapped.composed().c_str()).find("inner"), std::string::npos);
    EXPECT_STREQ(Tamtk::LockCreateException(here).what(),
                 "Resource lock or scope lock could not be created");
    EXPECT_STREQ(Tamtk::LockFailureException(here).what(),
                 "Resource lock or scope lock could not be acquired");

    Tamtk::FastMutex m;
    {
        Tamtk::ScopeLock<Tamtk::FastMutex> hold(m);
        try {
            m.lock();
            ADD_FAILURE() << "second lock succeeded";
        } catch (const Tamtk::SelfLockException& e) {
            EXPECT_STREQ(e.what(), "Self lock detected (RTTI of Lock=Tamtk::FastMutex)");
        }
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
