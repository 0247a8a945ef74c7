#pragma once

// The token source the settings name: an OAuth2 token endpoint asked with
// a client secret, a signed client assertion or a refresh token; or a
// command.

#include <memory>

#include "Agents/common/oauth2/OAuth2Settings.h"
#include "Agents/common/oauth2/TokenCache.h"

namespace Osk {
namespace EmailAgents {

// `settings.enabled` must be true. With a refresh token, a successor the
// endpoint sends is saved in the refresh token file before its access token
// is handed out, and the file is locked against other processes of the
// agent for the whole exchange.
std::unique_ptr<TokenSource> makeTokenSource(const OAuth2Settings& settings);

}  // namespace EmailAgents
}  // namespace Osk
