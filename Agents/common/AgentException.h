#pragma once

// Exception families of the email agents. The host catches them as
// Tamtk::Exception; the finer families let tests and callers tell a
// configuration mistake from a delivery problem.

#include "Toolkit/Exceptions.h"

namespace Osk {
namespace EmailAgents {

struct agent_tag;
struct param_tag;
struct delivery_tag;

typedef Tamtk::ExceptionT<agent_tag> AgentException;
// A parameter of the <EmailAgent> element is unknown or has a bad value.
typedef Tamtk::ExceptionT<param_tag, AgentException> AgentParamException;
// A message could not be delivered (completely); the text says where it went.
typedef Tamtk::ExceptionT<delivery_tag, AgentException> DeliveryException;

}  // namespace EmailAgents
}  // namespace Osk
