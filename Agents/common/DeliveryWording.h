#pragma once

// Everything the delivery engine says: to the caller, in the exceptions of
// a delivery, and to the operator on standard error. Each text begins with
// the agent and where it delivers to, "SMTP agent (smtp://mx.example.org): ".

#include <cstddef>
#include <string>
#include <vector>

#include "Agents/common/Transport.h"

namespace Osk {
namespace EmailAgents {

// What became of an attempt's recipients once it was settled.
struct Settled {
    std::size_t delivered = 0;
    std::vector<RecipientOutcome> temporary;
    std::vector<RecipientOutcome> permanent;
    std::string spoolError;   // the spool could not take the temporary part
    std::string failedError;  // failed/ could not take the permanent part

    bool complete() const { return temporary.empty() && permanent.empty(); }
    // Whether a part of the mail was neither delivered nor filed away.
    bool lost(bool spool) const {
        return (!permanent.empty() && !(spool && failedError.empty())) ||
               (!temporary.empty() && !(spool && spoolError.empty()));
    }
};

class DeliveryWording {
public:
    // `destination` is named when an attempt names no place of its own;
    // `spool` is "" without a spool.
    DeliveryWording(std::string agent, std::string destination, std::string spool)
        : agent_(std::move(agent)),
          destination_(std::move(destination)),
          spool_(std::move(spool)) {}

    // Why an envelope cannot be sent ("" when it can): `role` is "sender"
    // or "recipient".
    std::string addressProblem(const std::string& address, const char* role) const;
    std::string noRecipients() const;
    std::string unsendable(const std::string& problem) const;

    // New mail that went straight to the spool while the server is down,
    // and mail the spool could not take then.
    std::string keptWhileDown(const std::string& downSince) const;
    std::string lostWhileDown(const std::string& downSince, const std::string& spoolError) const;

    // Queue-first mail the spool could not take.
    std::string notQueued(const std::string& spoolError) const;

    // The outcome of an attempt at mail for `recipients` addresses, settled.
    std::string settled(const Settled& s, std::size_t recipients, const std::string& where) const;

    // A spool file that is not spooled mail, moved to failed/.
    std::string quarantined(const std::string& problem) const;
    // The last word when the process ends: `delivered` of the spool before
    // exit, `left` still waiting, `why` (may be "") they wait.
    std::string exitReport(std::size_t delivered, std::size_t left, const std::string& why) const;
    std::string drainFailed(const std::string& error) const;

private:
    std::string head(const std::string& where = "") const;

    std::string agent_;
    std::string destination_;
    std::string spool_;
};

}  // namespace EmailAgents
}  // namespace Osk
