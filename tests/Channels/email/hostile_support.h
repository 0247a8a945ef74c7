#pragma once

// What the hostile-input tables of the channel share: one hostile event
// delivered between two ordinary ones, and what became of each.

#include <set>
#include <string>
#include <vector>

#include "channel_fixture.h"
#include "mail_shape.h"

namespace testing_support {

// A configuration whose group 7 renders "Host %host%: %detail%" and whose
// mails carry X-Host (the event's host, default "unknown"), X-Detail (the
// event's detail, when it has one) and X-Group ("g1"). `tokens` replaces the
// token list when given.
std::string hostileConfig(const std::string& message = "Host %host%: %detail%",
                          const std::string& extraTokens = "");

struct Outcome {
    std::string parseError;  // the XmlException of an event that does not parse
    bool sent = false;       // the agent received a mail for it
    std::string mail;
    std::vector<Report> reports;  // made while the hostile event was delivered
};

// Delivers an ordinary event, then `xml` as event 7 (when it parses), then
// another ordinary event, and checks that both ordinary events arrived as
// themselves and that the hostile one did not leave a second mail behind.
Outcome deliverBetween(ReportingChannel& channel, const std::string& xml);

// The extra headers a mail from hostileConfig carries.
std::set<std::string> hostileHeaders(bool withDetail);

}  // namespace testing_support
