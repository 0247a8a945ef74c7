#pragma once

#include <pthread.h>

#include "Toolkit/Exceptions.h"

namespace Tamtk {

// The lock family. Its texts are built by ctor_helper so that every lock
// failure reads the same way whatever raised it.
class TAMTK_API LockException : public LockFamilyException {
public:
    LockException(const ExceptionString& message, const Location& where) noexcept;
    // "<text>" or "<text> due to lower level exception" wrapping `lower`.
    LockException(const char* text, const Exception& lower, const Location& where) noexcept;

    static ExceptionString ctor_helper(const char* text, const ExceptionString& detail);
};

class TAMTK_API LockCreateException : public LockException {
public:
    explicit LockCreateException(const Location& where) noexcept;
};

class TAMTK_API LockFailureException : public LockException {
public:
    explicit LockFailureException(const Location& where) noexcept;
    LockFailureException(const Exception& lower, const Location& where) noexcept;
};

class TAMTK_API SelfLockException : public LockException {
public:
    SelfLockException(const char* lockType, const Location& where) noexcept;
};

namespace internal {
namespace locks {
// Throws E when a pthread call returned an error number.
template <class E>
void enforce(int error, const Location& where) {
    if (error != 0) {
        throw E(where);
    }
}
}  // namespace locks
}  // namespace internal

// A non-recursive mutex that waits without time limit. Taking it again from
// the thread that holds it raises SelfLockException instead of deadlocking.
class TAMTK_API FastMutex {
public:
    FastMutex();
    ~FastMutex();
    FastMutex(const FastMutex&) = delete;
    FastMutex& operator=(const FastMutex&) = delete;

    void lock();
    void unlock() noexcept;

private:
    pthread_mutex_t mutex_;
};

// Holds a lock for the life of a scope.
template <class Mutex>
class ScopeLock {
public:
    explicit ScopeLock(Mutex& m) : mutex_(m) { mutex_.lock(); }
    ~ScopeLock() { mutex_.unlock(); }
    ScopeLock(const ScopeLock&) = delete;
    ScopeLock& operator=(const ScopeLock&) = delete;

private:
    Mutex& mutex_;
};

}  // namespace Tamtk
