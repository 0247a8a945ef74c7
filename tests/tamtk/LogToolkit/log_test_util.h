#pragma once

#include <initializer_list>
#include <string>

#include "AgentTestSupport.h"
#include "LogToolkit/Severity.h"

namespace logtest {

inline Tamlog::SeverityBag bagOf(std::initializer_list<const Tamlog::severity_mask*> members) {
    Tamlog::SeverityBag bag;
    for (const Tamlog::severity_mask* m : members) bag.insert(*m);
    return bag;
}

using AgentTest::messageOf;

}  // namespace logtest
