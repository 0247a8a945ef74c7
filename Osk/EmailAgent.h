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
// configuration, passed unchanged. Failures are signalled by exceptions.
//
// An exception that also derives from EmailChannel::AlertLost says that no
// copy of the mail was delivered or kept anywhere (or a recipient's copy,
// when the others got theirs): the alert is lost. A toolkit exception
// without that mark means the mail was kept (a spool, a folder of refused
// mail) or partly delivered, and its text says where. An exception that is
// no toolkit exception says nothing of the mail, so it counts as lost. The
// channel counts lost alerts for its host.
//
// A call with a null `message` and an empty `to` is a check, made by
// `osk-host --check`: the agent reads `params` as it would for a delivery
// and throws what it would throw for them, but sends, writes, connects and
// starts nothing.

#include <map>
#include <string>
#include <vector>

#include "NetToolkit/EmailAddr.h"

namespace Osk {
namespace EmailChannel {

// Recipients in configuration order.
typedef std::vector<Tamnet::EmailAddr> ToList;

// The mark of a lost alert. It is matched by its type's name, so the channel
// recognises it in any agent library, however that library was loaded.
class __attribute__((visibility("default"))) AlertLost {
public:
    virtual ~AlertLost() {}
};

typedef void SendEmailFn(const Tamnet::EmailAddr& from, const ToList& to, const char* message,
                         const std::map<std::string, std::string>& params);

}  // namespace EmailChannel
}  // namespace Osk

#define OSK_AGENT_EXPORT extern "C" __attribute__((visibility("default")))
