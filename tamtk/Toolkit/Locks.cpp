#include "Toolkit/Locks.h"

#include <cerrno>
#include <string>
#include <typeinfo>

#include "Toolkit/Abi.h"

namespace Tamtk {

namespace {
const char* const _source = "Locks";
const char* const _createText = "Resource lock or scope lock could not be created";
const char* const _failureText = "Resource lock or scope lock could not be acquired";
}  // namespace

LockException::LockException(const ExceptionString& message, const Location& where) noexcept
    : LockFamilyException(message, where) {}

LockException::LockException(const char* text, const Exception& lower,
                             const Location& where) noexcept
    : LockFamilyException(ctor_helper(text, " due to lower level exception"), where) {
    ctorhelper(lower);
}

ExceptionString LockException::ctor_helper(const char* text, const ExceptionString& detail) {
    std::string out(text ? text : "");
    if (detail.c_str()) {
        out += detail.c_str();
    }
    return ExceptionString(out);
}

LockCreateException::LockCreateException(const Location& where) noexcept
    : LockException(ExceptionString(_createText), where) {}

LockFailureException::LockFailureException(const Location& where) noexcept
    : LockException(ExceptionString(_failureText), where) {}

LockFailureException::LockFailureException(const Exception& lower, const Location& where) noexcept
    : LockException(_failureText, lower, where) {}

SelfLockException::SelfLockException(const char* lockType, const Location& where) noexcept
    : LockException(
          ctor_helper("Self lock detected", ExceptionString(std::string(" (RTTI of Lock=") +
                                                            (lockType ? lockType : "") + ")")),
          where) {}

FastMutex::FastMutex() {
    pthread_mutexattr_t attr;
    internal::locks::enforce<LockCreateException>(pthread_mutexattr_init(&attr),
                                                  TAMTK_HERE(_source));
    int rc = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    if (rc == 0) {
        rc = pthread_mutex_init(&mutex_, &attr);
    }
    pthread_mutexattr_destroy(&attr);
    internal::locks::enforce<LockCreateException>(rc, TAMTK_HERE(_source));
}

FastMutex::~FastMutex() {
    pthread_mutex_destroy(&mutex_);
}

void FastMutex::lock() {
    int rc = pthread_mutex_lock(&mutex_);
    if (rc == EDEADLK) {
        throw SelfLockException(internal::abi::demangle(typeid(FastMutex).name()).c_str(),
                                TAMTK_HERE(_source));
    }
    internal::locks::enforce<LockFailureException>(rc, TAMTK_HERE(_source));
}

void FastMutex::unlock() noexcept {
    pthread_mutex_unlock(&mutex_);
}

}  // namespace Tamtk
