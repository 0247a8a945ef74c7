#pragma once

#include <utility>

#include "Toolkit/Exceptions.h"
#include "Toolkit/Locks.h"

namespace Tamtk {

namespace internal {
namespace counted {

// The shared count of one object. Counts change under a mutex so that
// references to the same object may be copied and dropped from any thread.
class count_block {
public:
    count_block() : count_(1) {}
    virtual ~count_block() {}
    count_block(const count_block&) = delete;
    count_block& operator=(const count_block&) = delete;

    void add() {
        ScopeLock<FastMutex> hold(mutex_);
        ++count_;
    }
    // True when the last reference went.
    bool release() {
        ScopeLock<FastMutex> hold(mutex_);
        return --count_ == 0;
    }
    long count() {
        ScopeLock<FastMutex> hold(mutex_);
        return count_;
    }

private:
    FastMutex mutex_;
    long count_;
};

// Deletes the object through the type it was created with, so a reference
// converted to a base class still destroys the whole object.
template <class U>
class owned_block : public count_block {
public:
    explicit owned_block(U* p) : p_(p) {}
    ~owned_block() override { delete p_; }

private:
    U* p_;
};

}  // namespace counted
}  // namespace internal

// A shared, never-null reference to a heap object. The object is deleted when
// the last reference goes. A reference converts to one of a base class and
// then shares the same count.
template <class T>
class CountedRef {
public:
    typedef T element_type;

    // Takes ownership of `p`; a null pointer is refused.
    template <class U>
    explicit CountedRef(U* p) : p_(p), block_(nullptr) {
        if (p == nullptr) {
            throw NullPointerException(ExceptionString("Cannot count null references"),
                                       TAMTK_HERE("CountedRef"));
        }
        try {
            block_ = new internal::counted::owned_block<U>(p);
        } catch (...) {
            delete p;
            throw;
        }
    }

    CountedRef(const CountedRef& other) : p_(other.p_), block_(other.block_) { block_->add(); }

    template <class U>
    CountedRef(const CountedRef<U>& other)  // NOLINT: converts like a pointer does
        : p_(other.p_), block_(other.block_) {
        block_->add();
    }

    CountedRef& operator=(const CountedRef& other) {
        other.block_->add();
        drop();
        p_ = other.p_;
        block_ = other.block_;
        return *this;
    }

    ~CountedRef() { drop(); }

    T* get() const { return p_; }
    T& operator*() const { return *p_; }
    T* operator->() const { return p_; }
    long use_count() const { return block_->count(); }

    // The object as a U, or null when it is not one.
    template <class U>
    U* as() const {
        return dynamic_cast<U*>(p_);
    }

private:
    template <class U>
    friend class CountedRef;

    void drop() noexcept {
        try {
            if (block_->release()) {
                delete block_;
            }
        } catch (...) {
            // The count could not be taken: keeping the object is the only safe choice.
        }
    }

    T* p_;
    internal::counted::count_block* block_;
};

template <class T, class... Args>
CountedRef<T> makeCounted(Args&&... args) {
    return CountedRef<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Tamtk
