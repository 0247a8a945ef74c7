#pragma once

// Shared by the SMTP agent's tests.

#include <chrono>
#include <string>
#include <vector>

#include "AgentTestSupport.h"
#include "Agents/common/AgentException.h"
#include "Agents/smtp/SmtpAgent.h"

namespace AgentTest {

// Settings for a test server, with quick retries so that tests stay short.
inline Osk::EmailAgents::SmtpSettings settingsFor(const std::string& url,
                                                  Osk::EmailAgents::Params extra = {}) {
    extra.emplace("url", url);
    extra.emplace("timeout", "5");
    Osk::EmailAgents::SmtpSettings s = Osk::EmailAgents::SmtpSettings::fromParams(extra);
    s.retryFirst = std::chrono::milliseconds(50);
    s.retryMax = std::chrono::milliseconds(200);
    return s;
}

// The text of the DeliveryException that send() threw, or "" when it did not.
inline std::string sendFailure(Osk::EmailAgents::SmtpAgent& agent, const std::string& from,
                               const std::vector<std::string>& to, const std::string& message) {
    try {
        agent.send(from, to, message.c_str());
    } catch (const Osk::EmailAgents::DeliveryException& e) {
        return e.what();
    }
    return "";
}

}  // namespace AgentTest
