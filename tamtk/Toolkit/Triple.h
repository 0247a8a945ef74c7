#pragma once

namespace Tamtk {

// Three named values; std::tuple without the get<N> noise.
template <class A, class B, class C>
struct triple {
    typedef A first_type;
    typedef B second_type;
    typedef C third_type;

    triple() : first(), second(), third() {}
    triple(const A& a, const B& b, const C& c) : first(a), second(b), third(c) {}

    A first;
    B second;
    C third;
};

}  // namespace Tamtk
