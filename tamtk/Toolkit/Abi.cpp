#include "Toolkit/Abi.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <memory>
#include <typeinfo>

#include "Toolkit/Exception.h"

namespace Tamtk {
namespace internal {
namespace abi {

std::string demangle(const char* mangled) {
    if (mangled == nullptr) {
        return std::string();
    }
    int status = 0;
    std::unique_ptr<char, void (*)(void*)> name(
        ::abi::__cxa_demangle(mangled, nullptr, nullptr, &status), std::free);
    return (status == 0 && name) ? std::string(name.get()) : std::string(mangled);
}

std::string current_exception() {
    std::exception_ptr in_flight = std::current_exception();
    if (!in_flight) {
        return "unknown exception";
    }
    try {
        std::rethrow_exception(in_flight);
    } catch (const std::exception& e) {
        return e.what();
    } catch (const Tamtk::Exception& e) {
        return e.what();
    } catch (...) {
        const std::type_info* type = ::abi::__cxa_current_exception_type();
        return type ? demangle(type->name()) : std::string("unknown exception");
    }
}

}  // namespace abi
}  // namespace internal
}  // namespace Tamtk
