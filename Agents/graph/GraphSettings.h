#pragma once

// The Microsoft Graph agent's settings, read from its <EmailAgent> parameters.

#include <chrono>
#include <string>

#include "Agents/common/AgentParams.h"
#include "Agents/common/EngineParams.h"
#include "Agents/common/oauth2/OAuth2Settings.h"

namespace Osk {
namespace EmailAgents {

struct GraphSettings {
    std::string graphUrl = "https://graph.microsoft.com";  // "graph_url", without a final '/'
    std::string mailbox;              // "mailbox": the user who sends; "": the envelope sender
    bool verifyPeer = true;           // "verify_peer"
    std::string caFile;               // "ca_file"
    bool allowPlaintextAuth = false;  // "allow_plaintext_auth": http:// is taken (tests)
    EngineParams engine;              // timeout, spool, drain, connections, queue
    OAuth2Settings oauth2;            // auth is always oauth2: Graph takes nothing else

    // Not parameters: how spooled messages are retried. Tests change them.
    std::chrono::milliseconds retryFirst{1000};
    std::chrono::milliseconds retryMax{60000};
    bool retryAtStart = true;

    // Throws AgentParamException for unknown names and bad values.
    static GraphSettings fromParams(const Params& params);
};

}  // namespace EmailAgents
}  // namespace Osk
