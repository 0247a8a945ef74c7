#pragma once

// One sendMail request to Microsoft Graph, and what its answer means for
// each recipient. Graph takes the whole MIME message and sends it to the
// addresses of its To and Cc headers; the envelope only decides which mail
// is sent and who must be among those addresses.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Agents/common/Transport.h"
#include "Agents/common/oauth2/TokenCache.h"
#include "Agents/graph/GraphSettings.h"

namespace Osk {
namespace EmailAgents {

// Graph takes at most this much MIME (measured before Base64, with CR LF
// line ends) in one sendMail request.
const std::size_t graphMaxMime = 4 * 1024 * 1024;

// The time before which no request goes to Graph: it throttles the
// application and the mailbox, not one message. Shared by all the agent's
// transports.
class GraphPause {
public:
    // Nothing before now + `pause`, nor before an earlier, later limit.
    void hold(std::chrono::milliseconds pause);
    // What is left of the pause; zero when it is over.
    std::chrono::milliseconds left() const;

private:
    std::atomic<std::chrono::steady_clock::rep> until_{0};
};

class GraphTransport : public Transport {
public:
    GraphTransport(const GraphSettings& settings, TokenCache& tokens, GraphPause& pause,
                   const std::atomic<bool>* abort);
    Attempt send(const std::string& from, const std::vector<std::string>& to,
                 const std::string& message) override;

    // libcurl's global set-up, once per process.
    static void initialise();

private:
    struct Answer {
        long status = 0;  // 0: no answer (the reason says why)
        std::string reason;
        std::chrono::milliseconds retryAfter{0};
        bool uploaded = false;  // the whole body went out
    };
    Answer post(const std::string& url, const std::string& token, const std::string& body);

    const GraphSettings& settings_;
    TokenCache& tokens_;
    GraphPause& pause_;
    const std::atomic<bool>* abort_;
    // Kept from request to request, so that its connection is reused.
    std::unique_ptr<void, void (*)(void*)> curl_;
};

// The envelope recipients not among the To and Cc addresses of `message`.
std::vector<std::string> missingFromHeaders(const std::string& message,
                                            const std::vector<std::string>& to);

// A Retry-After value (seconds, or an HTTP date) as a pause from now; zero
// when it is absent, past or unreadable.
std::chrono::milliseconds retryAfter(const std::string& value);

// "https://graph/v1.0/users/<mailbox>/sendMail", the mailbox escaped.
std::string sendMailUrl(const GraphSettings& settings, const std::string& mailbox);

}  // namespace EmailAgents
}  // namespace Osk
