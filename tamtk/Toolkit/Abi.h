#pragma once

#include <string>

#include "Toolkit/Export.h"

namespace Tamtk {
namespace internal {
namespace abi {

// Describes the exception being handled: what() for standard exceptions and
// toolkit exceptions, the demangled type name for anything else, and
// "unknown exception" when none is in flight. Call it from a catch block.
TAMTK_API std::string current_exception();

// Demangles a C++ type name; returns the input when it cannot.
TAMTK_API std::string demangle(const char* mangled);

}  // namespace abi
}  // namespace internal
}  // namespace Tamtk
