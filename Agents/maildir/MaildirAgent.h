#pragma once

// The Maildir agent: every message becomes one file in a Maildir that mail
// clients (mutt, for one) read directly, so alerts can be seen without any
// mail server.

#include <string>

#include "Agents/common/AgentParams.h"

namespace Osk {
namespace EmailAgents {

struct MaildirSettings {
    std::string path;     // parameter "path", required
    bool fsync = true;    // parameter "fsync"
    std::string metrics;  // parameter "metrics": the file of AgentMetrics.h; "" for none

    // Throws AgentParamException for unknown names and bad values.
    static MaildirSettings fromParams(const Params& params);
};

// Stores `message` unchanged behind the Message-ID and Auto-Submitted lines
// it lacks; returns the path of the new file. Counted in the metrics file of
// the settings, when there is one.
std::string deliverToMaildir(const MaildirSettings& settings, const char* message);

}  // namespace EmailAgents
}  // namespace Osk
