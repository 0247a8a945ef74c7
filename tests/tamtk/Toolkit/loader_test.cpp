#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Toolkit/ComponentLoader.h"
#include "Toolkit/Singleton.h"

using Tamtk::ComponentLoader_t;
using Tamtk::FunctionPointer;
using Tamtk::Loader;
using Tamtk::LoaderException;
using Tamtk::LoaderMultiException;

namespace {

std::mutex g_opensMutex;
std::map<std::string, int> g_opens;

int opens(const std::string& file) {
    std::lock_guard<std::mutex> lock(g_opensMutex);
    return g_opens[file];
}

const std::string kSystem = "dlfcn (dlopen,dlclose,dlsym,dlerror) Linux";

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.compare(0, prefix.size(), prefix) == 0;
}
bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Runs `f`, expecting the loader family; returns the exception.
template <class F>
LoaderMultiException expectLoaderFailure(F f) {
    try {
        f();
    } catch (const LoaderMultiException& e) {
        EXPECT_STREQ(e.location().file.c_str(), "ComponentLoader");
        return e;
    }
    ADD_FAILURE() << "no exception";
    return LoaderMultiException("", Tamtk::Location());
}

std::filesystem::path scratchDir() {
    return std::filesystem::temp_directory_path() / ("loader_test_" + std::to_string(getpid()));
}

struct ScratchCleanup : ::testing::Environment {
    void TearDown() override { std::filesystem::remove_all(scratchDir()); }
};
::testing::Environment* const g_cleanup = ::testing::AddGlobalTestEnvironment(new ScratchCleanup);

// A private copy of a test library, so that its loading is this test's alone.
std::string copyOf(const char* library, const std::string& name) {
    const std::filesystem::path dir = scratchDir();
    std::filesystem::create_directories(dir);
    const std::filesystem::path target = dir / name;
    std::filesystem::remove(target);
    std::filesystem::copy_file(library, target);
    return target.string();
}

}  // namespace

// Counts the toolkit's dlopen calls per file name, then opens for real.
extern "C" __attribute__((visibility("default"))) void* dlopen(const char* file, int mode) noexcept {
    typedef void* (*open_fn)(const char*, int);
    static const open_fn real = reinterpret_cast<open_fn>(dlsym(RTLD_NEXT, "dlopen"));
    if (file) {
        std::lock_guard<std::mutex> lock(g_opensMutex);
        ++g_opens[file];
    }
    return real(file, mode);
}

TEST(ComponentLoader, OpensALibraryOnceHoweverOftenAsked) {
    ComponentLoader_t registry;
    const int before = opens(LOADER_ANSWER_LIB);
    const Loader& first = registry.get(LOADER_ANSWER_LIB, RTLD_LAZY);
    const Loader& again = registry.get(LOADER_ANSWER_LIB, RTLD_NOW);  // mode ignored
    EXPECT_EQ(&first, &again);
    EXPECT_EQ(opens(LOADER_ANSWER_LIB) - before, 1);
    EXPECT_EQ(registry.size(), 1u);

    auto answer = first.loadFunction<FunctionPointer<int>>("answer");
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(first.getAddr("answer"), reinterpret_cast<void*>(answer));
}

TEST(ComponentLoader, MissingFileIsReportedAndLeavesNoEntry) {
    ComponentLoader_t registry;
    const std::string missing = "/nonexistent/libnothing.so";
    LoaderMultiException e = expectLoaderFailure([&] { registry.get(missing, 1); });
    const std::string text = e.what();
    EXPECT_TRUE(startsWith(text, "Opening of module " + missing + " failed with error ")) << text;
    EXPECT_TRUE(endsWith(text, " (mode=1,system=" + kSystem + ")")) << text;
    EXPECT_EQ(e.location().line, 47);
    ASSERT_EQ(e.messages().size(), 1u) << "the subsystem's text is kept on its own";
    EXPECT_NE(text.find(e.messages()[0]), std::string::npos);
    EXPECT_FALSE(registry.contains(missing));
    EXPECT_EQ(registry.size(), 0u);
}

TEST(ComponentLoader, FailedOpenIsRetriedByTheNextRequest) {
    ComponentLoader_t registry;
    const std::string path = copyOf(LOADER_OTHER_LIB, "libretry.so");
    std::filesystem::remove(path);
    EXPECT_THROW(registry.get(path, RTLD_LAZY), LoaderException);
    EXPECT_FALSE(registry.contains(path));

    copyOf(LOADER_OTHER_LIB, "libretry.so");
    const Loader& loader = registry.get(path, RTLD_LAZY);
    EXPECT_STREQ(loader.loadFunction<FunctionPointer<const char*>>("greeting")(), "hello");
    EXPECT_TRUE(registry.contains(path));
    std::filesystem::remove(path);
}

TEST(ComponentLoader, EmptyNamesAreRefused) {
    ComponentLoader_t registry;
    registry.get(LOADER_ANSWER_LIB, RTLD_LAZY);
    const struct {
        std::function<void()> call;
        const char* message;
        int line;
    } cases[] = {
        {[&] { registry.get("", RTLD_LAZY); }, "filename is null or zero length", 37},
        {[] { Loader(nullptr, RTLD_LAZY); }, "filename is null or zero length", 37},
        {[&] { registry.get(LOADER_ANSWER_LIB, 1).getAddr(""); }, "symbol is null or zero length", 70},
        {[&] { registry.get(LOADER_ANSWER_LIB, 1).getAddr(nullptr); }, "symbol is null or zero length",
         70},
    };
    for (const auto& c : cases) {
        LoaderMultiException e = expectLoaderFailure(c.call);
        EXPECT_STREQ(e.what(), c.message);
        EXPECT_EQ(e.location().line, c.line);
        EXPECT_TRUE(e.messages().empty());
    }
    EXPECT_EQ(registry.size(), 1u) << "a refused name leaves the registry as it was";
    EXPECT_FALSE(registry.contains(""));
}

TEST(ComponentLoader, MissingSymbolIsReportedWithTheSubsystemsText) {
    ComponentLoader_t registry;
    const Loader& loader = registry.get(LOADER_ANSWER_LIB, RTLD_LAZY);
    LoaderMultiException e = expectLoaderFailure([&] { loader.getAddr("no_such_symbol"); });
    const std::string text = e.what();
    EXPECT_TRUE(startsWith(text, "Could not obtain address for no_such_symbol. Subsystem (" +
                                     kSystem + ") reported '"))
        << text;
    ASSERT_EQ(e.messages().size(), 1u);
    EXPECT_TRUE(endsWith(text, e.messages()[0] + "'.")) << text;
    EXPECT_NE(e.messages()[0].find("no_such_symbol"), std::string::npos) << e.messages()[0];
    EXPECT_EQ(e.location().line, 82);
    EXPECT_NE(std::string(e.location().function.c_str()).find("getAddr"), std::string::npos);
}

TEST(ComponentLoader, ConcurrentFirstRequestsOpenOnce) {
    ComponentLoader_t registry;
    const std::string path = copyOf(LOADER_OTHER_LIB, "libconcurrent.so");
    const int before = opens(path);
    std::atomic<bool> go(false);
    std::vector<const Loader*> got(8, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < got.size(); ++i) {
        threads.emplace_back([&, i] {
            while (!go) std::this_thread::yield();
            got[i] = &registry.get(path, RTLD_LAZY);
        });
    }
    go = true;
    for (std::thread& t : threads) t.join();
    for (const Loader* loader : got) EXPECT_EQ(loader, got[0]);
    EXPECT_EQ(opens(path) - before, 1);
    std::filesystem::remove(path);
}

TEST(ComponentLoader, LoaderClosesItsLibrary) {
    const std::string path = copyOf(LOADER_ANSWER_LIB, "libclosed.so");
    {
        Loader loader(path.c_str(), RTLD_NOW);
        EXPECT_NE(loader.handle(), Tamtk::internal::loader::dlfcn::nullHandle);
        void* probe = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(probe, nullptr);
        dlclose(probe);
    }
    EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
    std::filesystem::remove(path);
}

TEST(ComponentLoader, GlobalRegistryIsOneObjectForEveryThread) {
    typedef Tamtk::ComponentLoaderT<Tamtk::internal::loader::global_component_registry> Global;
    std::vector<ComponentLoader_t*> seen(4, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] { seen[i] = &Global::instance(); });
    }
    for (std::thread& t : threads) t.join();
    for (ComponentLoader_t* r : seen) EXPECT_EQ(r, &Global::instance());
    EXPECT_EQ(Global::instance().get(LOADER_ANSWER_LIB, 1).loadFunction<FunctionPointer<int>>(
                  "answer")(),
              42);
    EXPECT_TRUE(Global::instance().contains(LOADER_ANSWER_LIB));
}

namespace {
struct Faulty {
    static int attempts;
    Faulty() {
        ++attempts;
        throw std::runtime_error("no resources");
    }
};
int Faulty::attempts = 0;
}  // namespace

TEST(Singleton, FailedCreationIsKeptAndRethrownToEveryCaller) {
    typedef Tamtk::singleton_init_once_impl<Faulty> FaultySingleton;
    for (int call = 0; call < 3; ++call) {
        try {
            FaultySingleton::instance();
            ADD_FAILURE() << "no exception";
        } catch (const FaultySingleton::failure_type& e) {
            EXPECT_STREQ(e.what(), "Singleton could not be created: no resources");
        }
    }
    EXPECT_EQ(Faulty::attempts, 1) << "creation is not retried";
    EXPECT_THROW(FaultySingleton::instance(), Tamtk::SingletonException);
}

TEST(MultiException, CopiesKeepTheMessagesTheyHad) {
    LoaderMultiException first("main", Tamtk::Location("unit", 1, "f"));
    first.add("cause one");
    LoaderMultiException copy(first);
    first.add("cause two");
    EXPECT_EQ(copy.messages(), std::vector<std::string>({"cause one"}));
    EXPECT_EQ(first.messages(), std::vector<std::string>({"cause one", "cause two"}));
    EXPECT_STREQ(first.what(), "main");
    EXPECT_THROW(throw first, LoaderException);
}

TEST(ComponentLoader, ABareFileNameIsFoundBesideTheToolkit) {
    // The test libraries are built into the toolkit's own folder.
    const std::string path = LOADER_ANSWER_LIB;
    const std::string bare = path.substr(path.rfind('/') + 1);
    Loader loader(bare.c_str(), RTLD_NOW);
    EXPECT_EQ(loader.loadFunction<FunctionPointer<int>>("answer")(), 42);
    try {
        Loader missing("libno-such-agent.so", RTLD_NOW);
        ADD_FAILURE() << "opened a library that does not exist";
    } catch (const Tamtk::LoaderException& e) {
        // The error is the one of the name as given, not of the fallback.
        EXPECT_EQ(std::string(e.what()).rfind("Opening of module libno-such-agent.so failed with error "
                                              "libno-such-agent.so: ", 0),
                  0u)
            << e.what();
    }
}
