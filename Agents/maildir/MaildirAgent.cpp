#include "Agents/maildir/MaildirAgent.h"

#include <cstring>

#include "Agents/common/AgentException.h"
#include "Agents/common/Maildir.h"

namespace Osk {
namespace EmailAgents {

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
    const std::string name = maildir.deliver({Piece{message, std::strlen(message)}});
    return maildir.newDir() + "/" + name;
}

}  // namespace EmailAgents
}  // namespace Osk
