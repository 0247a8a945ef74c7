#pragma once

// Header lines mail providers expect of machine-sent mail and the channel
// does not write: a Message-ID, by which a retried mail is recognisably the
// same one, and "Auto-Submitted: auto-generated", which keeps vacation
// responders and mailing lists from answering an alert.

#include <string>

namespace Osk {
namespace EmailAgents {

// The lines to put in front of `message` (empty when it has both headers
// already), in the message's own line ending. The message itself stays as
// it is: the agents write these lines and then the message unchanged.
std::string missingHeaders(const char* message);

// A new "<time.process.counter@host>", unique across processes and hosts.
std::string newMessageId();

}  // namespace EmailAgents
}  // namespace Osk
