#pragma once

// The contract between the channel and an email agent library. An agent
// exports exactly one C symbol:
//
//   extern "C" void sendEmail(const Tamnet::EmailAddr& from,
//                             const Osk::EmailChannel::ToList& to,
//                             const char* message,
//                             const std::map<std::string, std::string>& params);
//
// `message` is the complete mail (headers and body, line feeds only,
// NUL-terminated); `params` are the <EmailAgent> parameters of the
// configuration, passed unchanged.
//
// Every outcome of a delivery has one meaning, and callers (the channel,
// an agent in front of another, the host's tools) decide from the type
// alone, never from the text:
//
// - `sendEmail` returns normally: the mail was delivered to every
//   recipient.
// - It throws an exception that derives from EmailChannel::AlertKept: a copy
//   of the mail (or of each undelivered recipient's part) is kept where it
//   will be delivered from later or where an operator finds it (a spool, a
//   hold, a folder of refused mail). The alert is not lost; the text says
//   where the copy is. Whoever called must not send it again.
// - It throws anything else: no copy was kept, the alert (or a recipient's
//   part of it) is lost. An exception that derives from
//   EmailChannel::AlertLost says so explicitly; an exception of any other
//   type, toolkit or not, means the same, since nothing vouches for a copy.
//   An exception with both marks is a loss. alertKept() below reads an
//   outcome this way.
// - An agent that holds mail back on purpose (the digest agent's flood
//   control) answers each mail it holds as kept: the mail is safe where the
//   text says and goes out later, but it was not delivered. The caller
//   hears of each held mail, one report per alert, as of a spooled one.
//   Such an agent tells of held mail that failed to go out with its answer
//   to the next mail, as kept (even when that mail was delivered), unless
//   the next mail itself is lost.
// - An agent that queues first (the SMTP and Graph agents with queue=yes)
//   returns normally once the mail is durably in its spool: like a relay
//   answering 250, it has taken responsibility for the delivery, and the
//   caller counts the alert as delivered. Every later failure (a refusal, a
//   mail moved to failed/) is the agent's to report, on standard error; the
//   spool's guarantees (nothing lost to a crash, the drain before exit)
//   stand behind it. Mail the spool cannot take is lost, as above.
//
// A call with a null `message` and an empty `to` is a check, made by
// `osk-host --check`: the agent reads `params` as it would for a delivery
// and throws what it would throw for them, but sends, writes, connects and
// starts nothing. A call with a null `message` and a non-empty `to` is a
// probe, made by `osk-host --check --probe`: the check, then the agent
// reaches whatever it delivers through as a delivery to `to` would (connect,
// TLS, sign in), sends no mail, and throws a text that names the step that
// failed; it creates nothing on disk. A check or probe that finds the
// parameters usable but something worth a warning (a secret file others may
// read, one relay of several silent) throws an exception that derives from
// EmailChannel::CheckWarning; its text is the warning.

#include <exception>
#include <map>
#include <string>
#include <vector>

#include "NetToolkit/EmailAddr.h"

namespace Osk {
namespace EmailChannel {

// Recipients in configuration order.
typedef std::vector<Tamnet::EmailAddr> ToList;

// The marks of a kept and of a lost alert. They are matched by their types'
// names, so a caller recognises them in any agent library, however that
// library was loaded.
class __attribute__((visibility("default"))) AlertKept {
public:
    virtual ~AlertKept() {}
};

class __attribute__((visibility("default"))) AlertLost {
public:
    virtual ~AlertLost() {}
};

class __attribute__((visibility("default"))) CheckWarning {
public:
    virtual ~CheckWarning() {}
};

// Whether `failure`, thrown by sendEmail, vouches for a kept copy of the
// mail; false for a loss (and for no exception at all).
inline bool alertKept(const std::exception_ptr& failure) noexcept {
    if (!failure) {
        return false;
    }
    try {
        std::rethrow_exception(failure);
    } catch (const AlertLost&) {
        return false;  // the loss mark wins
    } catch (const AlertKept&) {
        return true;
    } catch (...) {
        return false;  // nothing vouches for a copy
    }
}

typedef void SendEmailFn(const Tamnet::EmailAddr& from, const ToList& to, const char* message,
                         const std::map<std::string, std::string>& params);

}  // namespace EmailChannel
}  // namespace Osk

#define OSK_AGENT_EXPORT extern "C" __attribute__((visibility("default")))
