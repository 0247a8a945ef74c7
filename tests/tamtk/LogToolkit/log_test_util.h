#pragma once

#include <functional>
#include <initializer_list>
#include <string>

#include "LogToolkit/Severity.h"

namespace logtest {

inline Tamlog::SeverityBag bagOf(std::initializer_list<const Tamlog::severity_mask*> members) {
    Tamlog::SeverityBag bag;
    for (const Tamlog::severity_mask* m : members) bag.insert(*m);
    return bag;
}

// Runs `op` and returns the message of the exception of family E it raised.
template <class E>
std::string messageOf(const std::function<void()>& op) {
    try {
        op();
    } catch (const Tamtk::Exception& e) {
        if (dynamic_cast<const E*>(&e) == nullptr) {
            return std::string("wrong family: ") + e.what();
        }
        return e.what();
    }
    return "no exception";
}

}  // namespace logtest
