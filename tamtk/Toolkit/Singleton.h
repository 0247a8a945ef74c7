#pragma once

#include <boost/optional.hpp>
#include <mutex>
#include <string>

#include "Toolkit/Abi.h"
#include "Toolkit/Exceptions.h"

namespace Tamtk {

// One T per process, made on first use under once-only initialisation and
// destroyed at exit. A failed creation is not retried: it is kept and every
// caller, the first and all later ones, gets it as failure_type, so no one
// ever sees a half-made instance.
//
// Instantiate it in one module only: a library and a program that both
// instantiate the same T would each hold their own instance.
template <class T, class Tag = T>
class TAMTK_API singleton_init_once_impl {
public:
    typedef ExceptionT<singleton_init_once_impl, SingletonException> failure_type;

    static T& instance() {
        State& s = state();
        std::call_once(s.once, &create);
        if (s.failure)
            throw *s.failure;
        return *s.object;
    }

private:
    struct State {
        std::once_flag once;
        T* object = nullptr;
        boost::optional<failure_type> failure;
    };

    // Made before the instance, so destroyed after it.
    static State& state() {
        static State s;
        return s;
    }

    static void create() noexcept {
        try {
            static T object;
            state().object = &object;
        } catch (...) {
            const std::string cause = internal::abi::current_exception();
            state().failure.emplace(ExceptionString("Singleton could not be created: " + cause),
                                    TAMTK_HERE("Singleton"));
        }
    }
};

}  // namespace Tamtk
