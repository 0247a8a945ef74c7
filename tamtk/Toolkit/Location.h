#pragma once

#include <cstdint>
#include <iosfwd>

#include "Toolkit/ExceptionString.h"

namespace Tamtk {

// Where an exception was raised: a source name, a line and the full
// signature of the raising function.
class TAMTK_API Location {
public:
    Location() noexcept;
    Location(const char* file, std::int32_t line, const char* function) noexcept;
    Location(const Location& other) noexcept;
    Location& operator=(const Location& other) noexcept;

    ExceptionString file;
    std::int32_t line;
    ExceptionString function;
};

// Prints "file:line" and, when known, " in function".
TAMTK_API std::ostream& operator<<(std::ostream& out, const Location& where);

}  // namespace Tamtk

// The location of the current statement, with an explicit source name.
#define TAMTK_HERE(source) ::Tamtk::Location((source), __LINE__, __PRETTY_FUNCTION__)
// The same with an explicit line, for faults whose line is part of their identity.
#define TAMTK_HERE_AT(source, line) ::Tamtk::Location((source), (line), __PRETTY_FUNCTION__)
