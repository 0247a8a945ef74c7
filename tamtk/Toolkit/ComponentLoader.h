#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "Toolkit/Exceptions.h"
#include "Toolkit/Export.h"
#include "Toolkit/Locks.h"
#include "Toolkit/MultiException.h"

namespace Tamtk {

namespace internal {
namespace loader {

// Names the process-wide registry.
struct global_component_registry;

namespace dlfcn {
typedef void* handle_type;
// The handle that means no library.
constexpr handle_type nullHandle = nullptr;
// The loading subsystem, as named in messages.
TAMTK_API const char* system() noexcept;
}  // namespace dlfcn

}  // namespace loader
}  // namespace internal

// What the loader throws: the loader family (a handler of LoaderException
// catches it) with the subsystem's own error text, when there is one, as a
// further message.
typedef MultiExceptionT<internal::loader::loader_exception, std::string> LoaderMultiException;

// The type of a function looked up in a library: F::func_type.
template <class R, class... Args>
struct FunctionPointer {
    typedef R (*func_type)(Args...);
};

// One opened shared library; closed when the Loader goes.
class TAMTK_API Loader {
public:
    // Opens `filename` with dlopen(filename, mode); `mode` is passed through.
    Loader(const char* filename, int mode);
    virtual ~Loader();
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;

    void* getAddr(const char* symbol) const;

    // The address of `symbol` as F::func_type, e.g.
    //   loader.loadFunction<FunctionPointer<int, const char*>>("count")("x");
    template <class F>
    typename F::func_type loadFunction(const char* symbol) const {
        return reinterpret_cast<typename F::func_type>(getAddr(symbol));
    }

    internal::loader::dlfcn::handle_type handle() const noexcept { return handle_; }

private:
    internal::loader::dlfcn::handle_type handle_;
};

// Opened libraries by file name. A library is opened once however often it
// is asked for and stays open until the registry goes; a library that fails
// to open leaves no entry, so a later request tries again.
class TAMTK_API ComponentLoader_t {
public:
    ComponentLoader_t();
    ~ComponentLoader_t();
    ComponentLoader_t(const ComponentLoader_t&) = delete;
    ComponentLoader_t& operator=(const ComponentLoader_t&) = delete;

    // The loader of `filename`, opening it on the first request. The mode
    // of later requests is ignored: the first opener's mode stays. Safe from
    // any thread; the library is opened under the registry's lock, so
    // concurrent first requests open it once.
    const Loader& get(const std::string& filename, int mode);

    std::size_t size() const;
    bool contains(const std::string& filename) const;

private:
    std::map<std::string, Loader*> loaders_;
    mutable FastMutex mutex_;
};

// A registry singleton per tag. The one the system uses is
// ComponentLoaderT<internal::loader::global_component_registry>.
template <class Tag>
class ComponentLoaderT {
public:
    // The registry, made on first use under once-only initialisation and
    // destroyed at process exit. A failure to make it is kept and rethrown
    // to every caller as the singleton family.
    static ComponentLoader_t& instance();
};

template <>
TAMTK_API ComponentLoader_t&
ComponentLoaderT<internal::loader::global_component_registry>::instance();

}  // namespace Tamtk
