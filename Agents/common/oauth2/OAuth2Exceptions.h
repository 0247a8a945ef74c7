#pragma once

// What getting an OAuth2 access token can fail with. The texts name the
// token endpoint, the file or the command, and quote what the endpoint or
// the command said; they never hold a client secret, a private key, a
// refresh token or an access token.

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

struct oauth2_tag;
struct oauth2_config_tag;
struct oauth2_temporary_tag;

typedef Tamtk::ExceptionT<oauth2_tag, AgentException> OAuth2Exception;
// A configuration fault: the endpoint refused the client, the grant or the
// scope (invalid_client, invalid_grant, unauthorized_client, invalid_scope),
// a secret file or key cannot be read, the command cannot be started.
// Trying again soon will not help; a transport retries it only at its
// longest pause.
typedef Tamtk::ExceptionT<oauth2_config_tag, OAuth2Exception> OAuth2ConfigException;
// The endpoint is down, slow, overloaded (5xx, 429) or answered nonsense;
// the command failed or took too long. Worth trying again soon.
typedef Tamtk::ExceptionT<oauth2_temporary_tag, OAuth2Exception> OAuth2TemporaryException;

}  // namespace EmailAgents
}  // namespace Osk
