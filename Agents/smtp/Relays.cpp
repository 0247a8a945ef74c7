#include "Agents/smtp/Relays.h"

#include "Agents/common/oauth2/OAuth2Exceptions.h"

namespace Osk {
namespace EmailAgents {

namespace {

// Worth asking another relay: this one was not reached, or it took no
// recipient and refused none for good.
bool _failsOver(const Attempt& attempt) {
    if (attempt.connectionFailure) {
        return true;
    }
    for (const RecipientOutcome& r : attempt.recipients) {
        if (r.fate != Fate::Temporary) {
            return false;
        }
    }
    return !attempt.recipients.empty();
}

Attempt _withoutToken(const std::vector<std::string>& to, const OAuth2Exception& e,
                      bool configurationFault) {
    Attempt attempt;
    for (const std::string& r : to) {
        attempt.recipients.push_back({r, Fate::Temporary, e.what()});
    }
    attempt.connectionFailure = true;
    attempt.configurationFault = configurationFault;
    return attempt;
}

}  // namespace

Relays::Relays(const SmtpSettings& settings, const std::atomic<bool>* abort, TokenCache* tokens)
    : abort_(abort) {
    for (const std::string& relay : settings.relays) {
        sessions_.emplace_back(new SmtpSession(settings, relay, abort, tokens));
    }
}

Attempt Relays::send(const std::string& from, const std::vector<std::string>& to,
                     const std::string& message) {
    const std::string wire = toWireFormat(message.c_str());
    // The relay that worked last, then the others in their order.
    std::vector<std::size_t> order{current_};
    for (std::size_t i = 0; i < sessions_.size(); ++i) {
        if (i != current_) {
            order.push_back(i);
        }
    }
    Attempt attempt;
    bool allUnreachable = true;
    std::string before;
    for (std::size_t k = 0; k < order.size(); ++k) {
        try {
            attempt = sessions_[order[k]]->send(from, to, wire);
        } catch (const OAuth2ConfigException& e) {
            return _withoutToken(to, e, true);
        } catch (const OAuth2Exception& e) {
            return _withoutToken(to, e, false);
        }
        if (!_failsOver(attempt)) {
            current_ = order[k];
            return attempt;
        }
        allUnreachable = allUnreachable && attempt.connectionFailure;
        if (abort_ && abort_->load()) {
            break;
        }
        if (k + 1 < order.size()) {
            const std::string reason =
                attempt.recipients.empty() ? "" : attempt.recipients.front().reason;
            before += (before.empty() ? "" : "; ") + attempt.relay + ": " + reason;
        }
    }
    attempt.connectionFailure = allUnreachable;
    attempt.configurationFault = attempt.configurationFault && allUnreachable;
    if (!before.empty()) {
        for (RecipientOutcome& r : attempt.recipients) {
            r.reason += " (tried before: " + before + ")";
        }
    }
    return attempt;
}

}  // namespace EmailAgents
}  // namespace Osk
