#include "Agents/maildir/MaildirAgent.h"

#include <cstring>
#include <mutex>
#include <set>

#include "Agents/common/AgentException.h"
#include "Agents/common/MailHeaders.h"
#include "Agents/common/Maildir.h"

namespace Osk {
namespace EmailAgents {

namespace {

// Mail readers skip tmp/, so a file a crash left there would stay forever.
// Other writers may be busy in tmp/ right now: only what is older than any
// write could take goes, once per Maildir and process.
const long _leftoverAge = 36 * 3600;

void _cleanOnce(const Maildir& maildir) {
    static std::mutex mutex;
    static std::set<std::string> cleaned;
    std::lock_guard<std::mutex> lock(mutex);
    if (cleaned.insert(maildir.path()).second) {
        maildir.removeLeftovers(_leftoverAge, false);
    }
}

}  // namespace

MaildirSettings MaildirSettings::fromParams(const Params& params) {
    ParamReader reader("Maildir agent", params, {"path", "fsync"});
    MaildirSettings settings;
    settings.path = reader.required("path");
    settings.fsync = reader.flag("fsync", true);
    return settings;
}

std::string deliverToMaildir(const MaildirSettings& settings, const char* message) {
    TAMTK_ASSERT(message, "Agents/maildir");
    const Maildir maildir(settings.path, settings.fsync);
    _cleanOnce(maildir);
    const std::string headers = missingHeaders(message);
    const std::string name = maildir.deliver(
        {Piece{headers.data(), headers.size()}, Piece{message, std::strlen(message)}});
    return maildir.newDir() + "/" + name;
}

}  // namespace EmailAgents
}  // namespace Osk
