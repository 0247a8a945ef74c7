#include "Toolkit/ComponentLoader.h"

#include <dlfcn.h>

#include <cstring>

#include <memory>
#include <sstream>

#include "Toolkit/Singleton.h"

namespace Tamtk {

namespace {

const char* const _source = "ComponentLoader";

// The subsystem's error text for the call that just failed.
std::string _lastError() {
    const char* text = dlerror();
    return text ? text : "no error text";
}

[[noreturn]] void _raise(const std::string& message, const std::string* cause,
                         const Location& where) {
    LoaderMultiException e{ExceptionString(message), where};
    if (cause)
        e.add(*cause);
    throw e;
}

}  // namespace

namespace internal {
namespace loader {
namespace dlfcn {

const char* system() noexcept {
    return "dlfcn (dlopen,dlclose,dlsym,dlerror) Linux";
}

}  // namespace dlfcn
}  // namespace loader
}  // namespace internal

using internal::loader::dlfcn::nullHandle;

namespace {

void* _openBesideToolkit(const char* filename, int mode) {
    Dl_info self;
    if (dladdr(reinterpret_cast<void*>(&_openBesideToolkit), &self) == 0 ||
        self.dli_fname == nullptr) {
        return nullptr;
    }
    std::string path(self.dli_fname);
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        return nullptr;
    }
    path.replace(slash + 1, std::string::npos, filename);
    void* handle = dlopen(path.c_str(), mode);
    if (handle == nullptr) {
        dlerror();  // the first attempt's error is the one reported
    }
    return handle;
}

}  // namespace

Loader::Loader(const char* filename, int mode) : handle_(nullHandle) {
    if (!filename || !*filename) {
        _raise("filename is null or zero length", nullptr, TAMTK_HERE_AT(_source, 37));
    }
    handle_ = dlopen(filename, mode);
    if (handle_ == nullHandle) {
        const std::string error = _lastError();
        // A bare file name is also looked for beside the toolkit itself, where
        // the channel and the agents are installed. The run path normally
        // does this, but interposed dlopen()s (sanitizers) lose it.
        if (std::strchr(filename, '/') == nullptr) {
            handle_ = _openBesideToolkit(filename, mode);
            if (handle_ != nullHandle) {
                return;
            }
        }
        std::ostringstream message;
        message << "Opening of module " << filename << " failed with error " << error
                << " (mode=" << mode << ",system=" << internal::loader::dlfcn::system() << ")";
        _raise(message.str(), &error, TAMTK_HERE_AT(_source, 47));
    }
}

Loader::~Loader() {
    if (handle_ != nullHandle)
        dlclose(handle_);
}

void* Loader::getAddr(const char* symbol) const {
    if (!symbol || !*symbol) {
        _raise("symbol is null or zero length", nullptr, TAMTK_HERE_AT(_source, 70));
    }
    dlerror();  // forget an earlier failure so that the text below is this one's
    void* addr = dlsym(handle_, symbol);
    if (!addr) {
        const std::string error = _lastError();
        std::ostringstream message;
        message << "Could not obtain address for " << symbol << ". Subsystem ("
                << internal::loader::dlfcn::system() << ") reported '" << error << "'.";
        _raise(message.str(), &error, TAMTK_HERE_AT(_source, 82));
    }
    return addr;
}

ComponentLoader_t::ComponentLoader_t() {}

ComponentLoader_t::~ComponentLoader_t() {
    try {
        ScopeLock<FastMutex> lock(mutex_);
        for (auto& entry : loaders_) {
            delete entry.second;
        }
        loaders_.clear();
    } catch (...) {
        // Runs at process exit: there is no one left to tell.
    }
}

const Loader& ComponentLoader_t::get(const std::string& filename, int mode) {
    ScopeLock<FastMutex> lock(mutex_);
    auto found = loaders_.find(filename);
    if (found != loaders_.end())
        return *found->second;

    std::unique_ptr<Loader> loader(new Loader(filename.c_str(), mode));
    auto inserted = loaders_.insert(std::make_pair(filename, loader.get()));
    if (!inserted.second) {
        std::ostringstream message;
        message << "Unexpected error occurred during insert of library " << filename
                << " to registry.";
        _raise(message.str(), nullptr, TAMTK_HERE_AT(_source, 151));
    }
    return *loader.release();
}

std::size_t ComponentLoader_t::size() const {
    ScopeLock<FastMutex> lock(mutex_);
    return loaders_.size();
}

bool ComponentLoader_t::contains(const std::string& filename) const {
    ScopeLock<FastMutex> lock(mutex_);
    return loaders_.count(filename) != 0;
}

template <>
ComponentLoader_t& ComponentLoaderT<internal::loader::global_component_registry>::instance() {
    return singleton_init_once_impl<ComponentLoader_t,
                                    internal::loader::global_component_registry>::instance();
}

}  // namespace Tamtk
