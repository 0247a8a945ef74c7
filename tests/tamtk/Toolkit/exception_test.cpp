#include <gtest/gtest.h>

#include <cstring>
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

}  // namespace

TEST(ExceptionString, ShortTextsStayInlineAndLongOnesAreSharedBetweenCopies) {
    ExceptionString small(std::string(255, 'x'));
    EXPECT_FALSE(small.on_heap());
    ExceptionString big(std::string(256, 'y'));
    EXPECT_TRUE(big.on_heap());
    ExceptionString copy(big);
    EXPECT_EQ(copy.c_str(), big.c_str()) << "long texts are shared, not duplicated";
    ExceptionString smallCopy(small);
    EXPECT_NE(smallCopy.c_str(), small.c_str()) << "short texts are copied into the inline buffer";
    EXPECT_STREQ(smallCopy.c_str(), small.c_str());
}

TEST(ExceptionString, NullAndEmptyTexts) {
    ExceptionString fresh;
    EXPECT_EQ(fresh.c_str(), nullptr);
    ExceptionString fromNull(static_cast<const char*>(nullptr), 5);
    ASSERT_NE(fromNull.c_str(), nullptr);
    EXPECT_STREQ(fromNull.c_str(), "");
    ExceptionString a("abc");
    a = fresh;
    EXPECT_EQ(a.c_str(), nullptr);
    ExceptionString withNul("a\0b", 3);
    EXPECT_EQ(withNul.length(), 3u);
}

TEST(Exception, MessageAndLocationSurviveCopying) {
    for (std::size_t length : {0u, 10u, 255u, 256u, 257u, 4000u}) {
        const std::string text(length, 'm');
        Exception original = make(text);
        Exception copied(original);
        Exception assigned = make("other");
        assigned = original;
        for (const Exception* e : {&copied, &assigned}) {
            EXPECT_EQ(std::string(e->what()), text) << length;
            EXPECT_STREQ(e->location().file.c_str(), "unit");
            EXPECT_EQ(e->location().line, 42);
            EXPECT_STREQ(e->location().function.c_str(), "void f(int)");
        }
    }
}

TEST(Exception, WhatOfEmptyMessageIsEmptyNotNull) {
    Exception e{ExceptionString(), Location()};
    ASSERT_NE(e.what(), nullptr);
    EXPECT_STREQ(e.what(), "");
    EXPECT_STREQ(make("").what(), "");
}

TEST(Exception, StreamOperatorsShowMessageAndWhere) {
    std::ostringstream os;
    os << make("boom");
    EXPECT_EQ(os.str(), "boom [unit:42 in void f(int)]");
    std::ostringstream loc;
    loc << Location("src", 7, "");
    EXPECT_EQ(loc.str(), "src:7") << "an empty function text is left out";
}

TEST(Exception, ThrowMacroCapturesSourceLineAndSignature) {
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
}

TEST(Exception, AssertRaisesTheConditionText) {
    const char* pMessage = nullptr;
    try {
        TAMTK_ASSERT(pMessage, "email_channel");
        FAIL() << "no exception";
    } catch (const Tamtk::AssertionException& e) {
        EXPECT_STREQ(e.what(), "pMessage");
        EXPECT_STREQ(e.location().file.c_str(), "email_channel");
    }
}

// Every family of the system, raised and caught as the root and as itself.
TEST(Exception, RootHandlerCatchesEveryFamily) {
    const Location here("unit", 1, "f");
    const std::vector<std::function<void()>> raisers = {
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
    for (std::size_t i = 0; i < raisers.size(); ++i) {
        bool caught = false;
        try {
            raisers[i]();
        } catch (const Exception&) {
            caught = true;
        }
        EXPECT_TRUE(caught) << "family #" << i;
    }
}

TEST(Exception, NestedFamiliesAreCaughtByTheirParent) {
    const Location here("unit", 1, "f");
    EXPECT_THROW(throw Tamxml::ValueCastException("Empty value", here), Tamxml::XmlException);
    EXPECT_THROW(throw Tamlog::TargetUnknown("x", here), Tamlog::LogException);
    EXPECT_THROW(throw Osk::ChannelException("x", here), Tamlog::LogException);
    // Sibling families stay apart.
    bool wrongCatch = false;
    try {
        try {
            throw Tamxml::XmlException("x", here);
        } catch (const Tamxml::ValueCastException&) {
            wrongCatch = true;
        }
    } catch (const Tamxml::XmlException&) {
    }
    EXPECT_FALSE(wrongCatch);
}

TEST(LockFamily, Texts) {
    const Location here("Locks", 3, "f");
    EXPECT_STREQ(Tamtk::LockCreateException(here).what(),
                 "Resource lock or scope lock could not be created");
    EXPECT_STREQ(Tamtk::LockFailureException(here).what(),
                 "Resource lock or scope lock could not be acquired");
    Tamtk::LockFailureException wrapped(make("inner"), here);
    EXPECT_STREQ(wrapped.what(),
                 "Resource lock or scope lock could not be acquired due to lower level exception");
    EXPECT_NE(std::string(wrapped.composed().c_str()).find("inner"), std::string::npos);
    EXPECT_STREQ(Tamtk::SelfLockException("Tamtk::FastMutex", here).what(),
                 "Self lock detected (RTTI of Lock=Tamtk::FastMutex)");
}

TEST(FastMutex, SelfLockIsDetectedInsteadOfDeadlocking) {
    Tamtk::FastMutex m;
    Tamtk::ScopeLock<Tamtk::FastMutex> hold(m);
    try {
        m.lock();
        FAIL() << "second lock succeeded";
    } catch (const Tamtk::SelfLockException& e) {
        EXPECT_STREQ(e.what(), "Self lock detected (RTTI of Lock=Tamtk::FastMutex)");
    }
}

TEST(FastMutex, SerialisesThreads) {
    Tamtk::FastMutex m;
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

namespace {
struct NotAnException {};
}  // namespace

TEST(CurrentException, DescribesWhatIsInFlight) {
    EXPECT_EQ(Tamtk::internal::abi::current_exception(), "unknown exception");
    try {
        throw std::invalid_argument("Invalid regular expression object");
    } catch (...) {
        EXPECT_EQ(Tamtk::internal::abi::current_exception(), "Invalid regular expression object");
    }
    try {
        throw make("toolkit text");
    } catch (...) {
        EXPECT_EQ(Tamtk::internal::abi::current_exception(), "toolkit text");
    }
    try {
        throw NotAnException();
    } catch (...) {
        EXPECT_NE(Tamtk::internal::abi::current_exception().find("NotAnException"), std::string::npos);
    }
    try {
        throw 5;
    } catch (...) {
        EXPECT_EQ(Tamtk::internal::abi::current_exception(), "int");
    }
}
