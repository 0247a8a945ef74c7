#pragma once

#include <stdexcept>

#include "Toolkit/Abi.h"
#include "Toolkit/Exceptions.h"

namespace Tamlog {
namespace internal {
namespace util {

// Call from a catch block: a `Family` exception with `text` as its message
// that records the exception being handled as its cause, so the reason for
// a failure survives being reported in the toolkit's own words.
template <class Family>
Family wrapCurrent(const char* text, const Tamtk::Location& where) {
    class wrapper : public Family {
    public:
        wrapper(const char* t, const Tamtk::Location& w) : Family(Tamtk::ExceptionString(t), w) {}
        void cause(const Tamtk::Exception& e) { this->ctorhelper(e); }
        void cause(const std::exception& e) { this->ctorhelper(e); }
    };
    wrapper out(text, where);
    try {
        throw;
    } catch (const Tamtk::Exception& e) {
        out.cause(e);
    } catch (const std::exception& e) {
        out.cause(e);
    } catch (...) {
        out.cause(std::runtime_error(Tamtk::internal::abi::current_exception()));
    }
    return Family(out);
}

}  // namespace util
}  // namespace internal
}  // namespace Tamlog
