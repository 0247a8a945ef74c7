#pragma once

// What the delivery engine (DeliveryEngine.h) needs of a way to send mail:
// send one message and judge the answer for each recipient. A transport
// knows nothing of spools, retries or what the caller is told.

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Toolkit/Metrics.h"

namespace Osk {
namespace EmailAgents {

enum class Fate { Delivered, Temporary, Permanent };

// What kept a mail from its recipient, in the few words an operator's
// monitoring counts by (AgentMetrics.h). Unknown: the engine judges from
// the fate and the attempt's flags.
enum class Cause { Unknown, Connect, Tls, Auth, Token, Temporary, Permanent, Disk, Config };

struct RecipientOutcome {
    std::string address;
    Fate fate;
    std::string reason;  // the server's reply or the transport error; empty when delivered
    Cause cause = Cause::Unknown;
};

struct Attempt {
    std::vector<RecipientOutcome> recipients;  // in the order given
    // The server could not be reached or the link broke: wait before the
    // next try instead of trying again at once.
    bool connectionFailure = false;
    // The link broke after the whole message was sent: the server may have
    // taken it, so a retry may deliver it twice.
    bool possiblyDelivered = false;
    // Retrying will not help until the configuration or the server's setup
    // changes (no STARTTLS where it is required, a certificate that does not
    // verify): retried at the longest pause, not in a loop.
    bool configurationFault = false;
    // The server asked for a pause (an HTTP Retry-After): the agent sends it
    // nothing, of any mail, before it has passed. Zero: none asked for.
    std::chrono::milliseconds leastPause{0};
    // New connections this attempt opened (0 when an open one was reused).
    long connections = 0;
    // Where this outcome comes from (a relay's URL), for the reports.
    std::string relay;
};

class Transport {
public:
    virtual ~Transport() {}
    // Sends `message` (the whole mail, line feeds, as it is kept in the
    // spool) from the envelope sender `from` to each of `to`. Never throws
    // for a delivery problem: the outcome tells every recipient's fate.
    virtual Attempt send(const std::string& from, const std::vector<std::string>& to,
                         const std::string& message) = 0;
};

// Makes the engine's transports: one for the sending path and one per drain
// worker, each used by one thread at a time. `abort`, when it turns true,
// cuts off a transfer under way.
class TransportFactory {
public:
    virtual ~TransportFactory() {}
    virtual std::unique_ptr<Transport> make(const std::atomic<bool>* abort) const = 0;
    // Figures of what the transports share (a token), beside the engine's.
    virtual void writeMetrics(Tamtk::MetricsText&) const {}
};

}  // namespace EmailAgents
}  // namespace Osk
