// The Maildir agent's plug-in entry: the message already carries its
// recipients in its header, so the envelope is not needed.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Agents/common/AgentEntry.h"
#include "Agents/common/AgentException.h"
#include "Agents/maildir/MaildirAgent.h"
#include "Osk/EmailAgent.h"

namespace {

using namespace Osk::EmailAgents;

// A delivery writes into tmp/ and new/, making them and the folders above
// them when missing: of each, the deepest folder that exists now must take
// new files.
void _probeWritable(const MaildirSettings& settings) {
    for (const char* sub : {"/tmp", "/new"}) {
        std::string folder = settings.path + sub;
        while (::access(folder.c_str(), F_OK) != 0 && folder != "." && folder != "/") {
            const std::size_t slash = folder.find_last_of('/');
            folder = slash == std::string::npos ? "." : slash == 0 ? "/" : folder.substr(0, slash);
        }
        struct stat status;
        const bool isFolder = ::stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
        if (!isFolder || ::access(folder.c_str(), W_OK | X_OK) != 0) {
            const int err = isFolder ? errno : ENOTDIR;
            TAMTK_THROW(AgentException, "Agents/maildir",
                        "Maildir agent: \"" << folder << "\" takes no new files, so no mail "
                                            << "reaches " << settings.path << ": "
                                            << std::strerror(err));
        }
    }
}

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& /*from*/,
                                const Osk::EmailChannel::ToList& to, const char* message,
                                const std::map<std::string, std::string>& params) {
    runSendEmail(to, message,
                 {[&] { MaildirSettings::fromParams(params); },
                  [&](const Osk::EmailChannel::ToList&) {
                      _probeWritable(MaildirSettings::fromParams(params));
                  },
                  [&] {
                      try {
                          deliverToMaildir(MaildirSettings::fromParams(params), message);
                      } catch (const Tamtk::Exception& e) {
                          // A Maildir keeps no copy of what it could not write.
                          throwLost(e);
                      }
                  }});
}
