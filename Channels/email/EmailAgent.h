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

typedef void SendEmailFn(const Tamnet::EmailAddr& from, const ToList& to, const char* message,
                         const std::map<std::string, std::string>& params);

}  // namespace EmailChannel
}  // namespace Osk

#define OSK_AGENT_EXPORT extern "C" __attribute__((visibility("default")))
