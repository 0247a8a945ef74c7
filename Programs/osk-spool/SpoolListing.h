#pragma once

// What a spool holds, the way osk-spool lists it: one entry per mail, for
// people as lines of text and for programs as JSON.

#include <ctime>
#include <ostream>
#include <string>
#include <vector>

#include "Agents/common/Spool.h"

namespace Osk {

struct SpoolEntry {
    std::string id;  // the file name, in new/ or failed/new/
    bool failed = false;
    std::time_t queued = 0;
    std::vector<std::string> recipients;
    std::string subject;  // decoded, UTF-8
    std::string reason;   // the server's reply, or why the file cannot be read
};

// Every mail of the spool, oldest first. A file whose envelope cannot be
// read is listed with its modification time and the reason.
std::vector<SpoolEntry> readSpool(const EmailAgents::Spool& spool);

// The subject of a message (headers, a blank line, the body), unfolded and
// decoded; "" when it has none.
std::string messageSubject(const std::string& message);

void printText(std::ostream& out, const std::vector<SpoolEntry>& entries);
void printJson(std::ostream& out, const std::vector<SpoolEntry>& entries);

}  // namespace Osk
