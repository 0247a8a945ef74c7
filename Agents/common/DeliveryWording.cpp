#include "Agents/common/DeliveryWording.h"

#include <sstream>

namespace Osk {
namespace EmailAgents {

namespace {

bool _sameReason(const std::vector<RecipientOutcome>& outcomes) {
    for (const RecipientOutcome& o : outcomes) {
        if (o.reason != outcomes.front().reason) {
            return false;
        }
    }
    return true;
}

// "a, b (reason)" when all share one reason, else "a (r1), b (r2)".
std::string _list(const std::vector<RecipientOutcome>& outcomes) {
    const bool same = _sameReason(outcomes);
    std::string out;
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        out += (i ? ", " : "") + outcomes[i].address;
        if (!same) {
            out += " (" + outcomes[i].reason + ")";
        }
    }
    if (same) {
        out += " (" + outcomes.front().reason + ")";
    }
    return out;
}

}  // namespace

std::string DeliveryWording::head(const std::string& where) const {
    return agent_ + " (" + (where.empty() ? destination_ : where) + "): ";
}

std::string DeliveryWording::addressProblem(const std::string& address, const char* role) const {
    // The sender may be empty (the null sender, "MAIL FROM:<>"); a recipient not.
    if (address.empty() && std::string(role) != "sender") {
        return std::string("empty ") + role + " address";
    }
    for (char c : address) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            return std::string("the ") + role + " address \"" + address +
                   "\" holds a control character";
        }
    }
    return "";
}

std::string DeliveryWording::noRecipients() const {
    return unsendable("the message has no recipients");
}

std::string DeliveryWording::unsendable(const std::string& problem) const {
    return head() + problem + "; the alert is lost";
}

std::string DeliveryWording::keptWhileDown(const std::string& downSince) const {
    return head() + "the server could not be reached at the last attempt (" + downSince +
           "); the message was kept in the spool \"" + spool_ + "\" and will be retried";
}

std::string DeliveryWording::lostWhileDown(const std::string& downSince,
                                           const std::string& spoolError) const {
    return head() + "the server could not be reached at the last attempt (" + downSince +
           ") and the spool could not take the message (" + spoolError + "); the alert is lost";
}

std::string DeliveryWording::notQueued(const std::string& spoolError) const {
    return head() + "the spool could not take the message (" + spoolError + "); the alert is lost";
}

std::string DeliveryWording::settled(const Settled& s, std::size_t recipients,
                                     const std::string& where) const {
    std::ostringstream out;
    out << head(where);
    const bool whole = s.delivered == 0;
    const bool spool = !spool_.empty();
    auto lost = [&](const std::string& error) {
        return spool ? "; it could not be stored (" + error + ") and is lost"
                     : std::string("; it is lost: no spool directory is configured");
    };
    if (!s.permanent.empty()) {
        if (whole && s.temporary.empty() && _sameReason(s.permanent)) {
            out << "the server refused the message: " << s.permanent.front().reason;
        } else {
            out << "the server refused " << (whole && s.temporary.empty() ? "all " : "the ")
                << (s.permanent.size() > 1 ? "recipients " : "recipient ") << _list(s.permanent);
        }
        if (spool && s.failedError.empty()) {
            out << "; a copy was moved to \"" << spool_ << "/failed\"";
        } else {
            out << lost(s.failedError);
        }
    }
    if (!s.temporary.empty()) {
        if (!s.permanent.empty()) {
            out << "; ";
        }
        if (whole && s.permanent.empty() && _sameReason(s.temporary)) {
            out << "the message could not be delivered now: " << s.temporary.front().reason;
        } else {
            out << "delivery failed for now to " << _list(s.temporary);
        }
        if (spool && s.spoolError.empty()) {
            out << "; it was kept in the spool \"" << spool_ << "\" and will be retried";
        } else {
            out << lost(s.spoolError);
        }
    }
    if (!whole) {
        out << "; delivered to the other " << s.delivered << " of " << recipients << " recipients";
    }
    return out.str();
}

std::string DeliveryWording::quarantined(const std::string& problem) const {
    return head() + problem + "; it was moved to \"" + spool_ + "/failed\"";
}

std::string DeliveryWording::exitReport(std::size_t delivered, std::size_t left,
                                        const std::string& why) const {
    std::ostringstream out;
    out << head();
    if (delivered > 0) {
        out << delivered << " spooled mail" << (delivered == 1 ? "" : "s")
            << " delivered before exit; ";
    }
    out << left << " mail" << (left == 1 ? " waits" : "s wait") << " in the spool \"" << spool_
        << "\"";
    if (!why.empty()) {
        out << " (" << why << ")";
    }
    if (left > 0) {
        out << " and will be sent when the agent next starts";
    }
    return out.str();
}

std::string DeliveryWording::drainFailed(const std::string& error) const {
    return head() + "the spool \"" + spool_ + "\" could not be drained" +
           (error.empty() ? "" : ": " + error);
}

}  // namespace EmailAgents
}  // namespace Osk
