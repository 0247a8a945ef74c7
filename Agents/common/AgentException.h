#pragma once

// Exception families of the email agents. The host catches them as
// Tamtk::Exception; the finer families let tests and callers tell a
// configuration mistake from a delivery problem.

#include "Osk/EmailAgent.h"
#include "Toolkit/Exceptions.h"

namespace Osk {
namespace EmailAgents {

struct agent_tag;
struct param_tag;
struct delivery_tag;

typedef Tamtk::ExceptionT<agent_tag> AgentException;
// A parameter of the <EmailAgent> element is unknown or has a bad value.
typedef Tamtk::ExceptionT<param_tag, AgentException> AgentParamException;
// A message could not be delivered (completely). Thrown as it is, it counts
// as a loss: only KeptException vouches for a copy.
typedef Tamtk::ExceptionT<delivery_tag, AgentException> DeliveryException;

// Not delivered (to every recipient), but a copy is kept: in a spool that
// retries it, a hold, or a folder of refused mail. The text says where.
class KeptException : public DeliveryException, public EmailChannel::AlertKept {
public:
    KeptException(const Tamtk::ExceptionString& message, const Tamtk::Location& where) noexcept
        : DeliveryException(message, where) {}
};

// What a check or probe warns of: the parameters work, but the text names
// something the operator should fix (a secret file others may read).
class CheckWarningException : public AgentException, public EmailChannel::CheckWarning {
public:
    CheckWarningException(const Tamtk::ExceptionString& message,
                          const Tamtk::Location& where) noexcept
        : AgentException(message, where) {}
};

// Nothing kept the message (or one recipient's copy of it): the channel
// counts the alert as lost. The text ends saying so.
class LostException : public DeliveryException, public EmailChannel::AlertLost {
public:
    LostException(const Tamtk::ExceptionString& message, const Tamtk::Location& where) noexcept
        : DeliveryException(message, where) {}
};

// Raises `failure` again as a LostException at its own location, its text
// followed by "; the alert is lost".
[[noreturn]] void throwLost(const Tamtk::Exception& failure);

}  // namespace EmailAgents
}  // namespace Osk
