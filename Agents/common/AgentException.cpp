#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

void throwLost(const Tamtk::Exception& failure) {
    throw LostException(Tamtk::ExceptionString(std::string(failure.what()) + "; the alert is lost"),
                        failure.location());
}

}  // namespace EmailAgents
}  // namespace Osk
