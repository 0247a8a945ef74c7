#include "Toolkit/Exception.h"

#include <cstring>
#include <ostream>

#include "Toolkit/Exceptions.h"

namespace Tamtk {

Exception::Exception(const ExceptionString& message, const Location& where) noexcept
    : location_(where) {
    message_.copy(message);
    if (message_.c_str() == nullptr) {
        message_.create_string(nullptr, 0);
    }
    composed_.create_string(nullptr, 0);
}

Exception::Exception(const Exception& other) noexcept : location_(other.location_) {
    message_.copy(other.message_);
    composed_.copy(other.composed_);
}

Exception& Exception::operator=(const Exception& other) noexcept {
    message_.copy(other.message_);
    composed_.copy(other.composed_);
    location_ = other.location_;
    return *this;
}

Exception::~Exception() {}

const char* Exception::what() const noexcept {
    return message_.c_str() ? message_.c_str() : "";
}

void Exception::compose(const char* cause) noexcept {
    try {
        std::string text(what());
        text += " (caused by: ";
        text += cause ? cause : "";
        text += ")";
        composed_.create_string(text.data(), static_cast<unsigned>(text.size()));
    } catch (...) {
        composed_.copy(message_);
    }
}

void Exception::ctorhelper(const Exception& lower) noexcept {
    try {
        std::ostringstream os;
        os << lower;
        compose(os.str().c_str());
    } catch (...) {
        compose(lower.what());
    }
}

void Exception::ctorhelper(const std::exception& lower) noexcept {
    compose(lower.what());
}

std::ostream& operator<<(std::ostream& out, const Exception& e) {
    out << e.what() << " [" << e.location() << ']';
    if (!e.composed().empty()) {
        out << " {" << e.composed().c_str() << '}';
    }
    return out;
}

}  // namespace Tamtk
