#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "AgentTestSupport.h"
#include "Toolkit/ComponentLoader.h"
#include "Toolkit/Singleton.h"

using Tamtk::ComponentLoader_t;
using Tamtk::FunctionPointer;
using Tamtk::Loader;
using Tamtk::LoaderMultiException;

namespace {

std::mutex g_opensMutex;
std::map<std::string, int> g_opens;

int opens(const std::string& file) {
    std::lock_guard<std::mutex> lock(g_opensMutex);
    return g_opens[file];
}

const std::string kSystem = "dlfcn (dlopen,dlclose,dlsym,dlerror) Linux";

LoaderMultiException loaderFailure(const std::function<void()>& f) {
    try {
        f();
    } catch (const LoaderMultiException& e) {
        return e;
    }
    ADD_FAILURE() << "no exception";
    return LoaderMultiException("no exception", Tamtk::Location());
}

// A private copy of a test library, so that its loading is this test's alone.
std::string copyOf(const char* library, const std::string& name) {
    static const AgentTest::TempDir scratch;
    const std::string target = scratch / name;
    std::filesystem::remove(target);
    std::filesystem::copy_file(library, target);
    return target;
}

struct Faulty {
    static int attempts;
    Faulty() {
        ++attempts;
        throw std::runtime_error("no resources");
    }
};
int Faulty::attempts = 0;

}  // namespace

// Counts the toolkit's dlopen calls per file name, then opens for real.
extern "C" __attribute__((visibility("default"))) void* dlopen(const char* file,
                                                               int mode) noexcept {
    typedef void* (*open_fn)(const char*, int);
    static const open_fn real = reinterpret_cast<open_fn>(dlsym(RTLD_NEXT, "dlopen"));
    if (file) {
        std::lock_guard<std::mutex> lock(g_opensMutex);
        ++g_opens[file];
    }
    return real(file, mode);
}

TEST(ComponentLoader, OpensALibraryOnceAndClosesItWithTheLoader) {
    ComponentLoader_t registry;
    const Loader& first = registry.get(LOADER_ANSWER_LIB, RTLD_LAZY);
    const Loader& again = registry.get(LOADER_ANSWER_LIB, RTLD_NOW);  // mode ignored
    EXPECT_EQ(&first, &again);  // the concurrent test counts its one opening
    EXPECT_EQ(first.loadFunction<FunctionPointer<int>>("answer")(), 42);

    const std::string path = copyOf(LOADER_ANSWER_LIB, "libclosed.so");
    {
        Loader loader(path.c_str(), RTLD_NOW);
        void* probe = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(probe, nullptr);
        dlclose(probe);
    }
    EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

// Refusals keep the subsystem's own text apart, and leave the registry as it was.
TEST(ComponentLoader, RefusalsNameTheirCause) {
    ComponentLoader_t registry;
    const Loader& loader = registry.get(LOADER_ANSWER_LIB, RTLD_LAZY);
    const std::string missing = "/nonexistent/libnothing.so";
    const std::string noFile = "filename is null or zero length";
    const std::string noSymbol = "symbol is null or zero length";
    const struct {
        std::function<void()> call;
        std::string prefix;  // the subsystem's text, when there is one, follows
        std::string suffix;
        int line;  // the fixed line each refusal reports
    } rows[] = {
        {[&] { registry.get(missing, 1); }, "Opening of module " + missing + " failed with error ",
         " (mode=1,system=" + kSystem + ")", 47},
        {[&] { loader.getAddr("no_such_symbol"); },
         "Could not obtain address for no_such_symbol. Subsystem (" + kSystem + ") reported '",
         "'.", 82},
        {[&] { registry.get("", RTLD_LAZY); }, noFile, "", 37},
        {[] { Loader(nullptr, RTLD_LAZY); }, noFile, "", 37},
        {[&] { loader.getAddr(""); }, noSymbol, "", 70},
        {[&] { loader.getAddr(nullptr); }, noSymbol, "", 70},
    };
    for (const auto& r : rows) {
        const LoaderMultiException e = loaderFailure(r.call);
        const std::string cause = e.messages().empty() ? "" : e.messages()[0];
        EXPECT_EQ(e.what(), r.prefix + cause + r.suffix);
        EXPECT_EQ(e.messages().size(), r.suffix.empty() ? 0u : 1u) << e.what();
        EXPECT_EQ(e.location().line, r.line) << e.what();
    }
    EXPECT_EQ(registry.size(), 1u);
}

TEST(ComponentLoader, FailedOpenIsRetriedByTheNextRequest) {
    ComponentLoader_t registry;
    const std::string path = copyOf(LOADER_OTHER_LIB, "libretry.so");
    std::filesystem::remove(path);
    EXPECT_THROW(registry.get(path, RTLD_LAZY), Tamtk::LoaderException);
    copyOf(LOADER_OTHER_LIB, "libretry.so");
    const Loader& loader = registry.get(path, RTLD_LAZY);
    EXPECT_STREQ(loader.loadFunction<FunctionPointer<const char*>>("greeting")(), "hello");
}

TEST(ComponentLoader, ABareFileNameIsFoundBesideTheToolkit) {
    // The test libraries are built into the toolkit's own folder.
    const std::string path = LOADER_ANSWER_LIB;
    const std::string bare = path.substr(path.rfind('/') + 1);
    EXPECT_EQ(Loader(bare.c_str(), RTLD_NOW).loadFunction<FunctionPointer<int>>("answer")(), 42);
    // The error is the one of the name as given, not of the fallback.
    const std::string message = loaderFailure([] { Loader("libnone.so", RTLD_NOW); }).what();
    EXPECT_EQ(message.rfind("Opening of module libnone.so failed with error libnone.so: ", 0), 0u)
        << message;
}

TEST(ComponentLoader, ConcurrentFirstRequestsOpenOnceInOneGlobalRegistry) {
    typedef Tamtk::ComponentLoaderT<Tamtk::internal::loader::global_component_registry> Global;
    ComponentLoader_t registry;
    const std::string path = copyOf(LOADER_OTHER_LIB, "libconcurrent.so");
    const int before = opens(path);
    std::atomic<bool> go(false);
    std::vector<const Loader*> got(8, nullptr);
    std::vector<ComponentLoader_t*> global(8, nullptr);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < got.size(); ++i) {
        threads.emplace_back([&, i] {
            while (!go) std::this_thread::yield();
            got[i] = &registry.get(path, RTLD_LAZY);
            global[i] = &Global::instance();
        });
    }
    go = true;
    for (std::thread& t : threads) t.join();
    for (std::size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i], got[0]);
        EXPECT_EQ(global[i], &Global::instance());
    }
    EXPECT_EQ(opens(path) - before, 1);
}

TEST(Singleton, FailedCreationIsKeptAndRethrownToEveryCaller) {
    typedef Tamtk::singleton_init_once_impl<Faulty> FaultySingleton;
    for (int call = 0; call < 3; ++call) {
        try {
            FaultySingleton::instance();
            ADD_FAILURE() << "no exception";
        } catch (const Tamtk::SingletonException& e) {
            EXPECT_STREQ(e.what(), "Singleton could not be created: no resources");
        }
    }
    EXPECT_EQ(Faulty::attempts, 1) << "creation is not retried";
}
