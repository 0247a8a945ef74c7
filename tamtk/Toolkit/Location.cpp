#include "Toolkit/Location.h"

#include <ostream>

namespace Tamtk {

Location::Location() noexcept : line(0) {}

Location::Location(const char* file_, std::int32_t line_, const char* function_) noexcept
    : line(line_) {
    file.create_string(file_,
                       file_ ? static_cast<unsigned>(std::char_traits<char>::length(file_)) : 0);
    function.create_string(
        function_,
        function_ ? static_cast<unsigned>(std::char_traits<char>::length(function_)) : 0);
}

Location::Location(const Location& other) noexcept : line(other.line) {
    file.copy(other.file);
    function.copy(other.function);
}

Location& Location::operator=(const Location& other) noexcept {
    file.copy(other.file);
    line = other.line;
    function.copy(other.function);
    return *this;
}

std::ostream& operator<<(std::ostream& out, const Location& where) {
    out << (where.file.c_str() ? where.file.c_str() : "?") << ':' << where.line;
    if (where.function.c_str() && *where.function.c_str()) {
        out << " in " << where.function.c_str();
    }
    return out;
}

}  // namespace Tamtk
