// An email agent that appends every mail to one file, each after a line
// "From <sender> <recipients>" (the mbox way). It answers as the contract
// says: returning means the mail is in the file; a mail it could not append
// is lost, and its exception says so by type.

#include <fstream>

#include "Osk/EmailAgent.h"
#include "Toolkit/Exceptions.h"

namespace {

struct file_agent_tag;
typedef Tamtk::ExceptionT<file_agent_tag> FileAgentError;

// Nothing kept the mail, so the channel counts the alert as lost.
class MailLost : public FileAgentError, public Osk::EmailChannel::AlertLost {
public:
    using FileAgentError::FileAgentError;
};

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    const auto path = params.find("path");
    if (params.size() != 1 || path == params.end() || path->second.empty()) {
        TAMTK_THROW(FileAgentError, "file_agent", "the file agent takes one parameter, path");
    }
    if (message == nullptr) {
        return;  // a check or a probe: nothing to reach but the file, written on delivery
    }
    std::ofstream out(path->second, std::ios::app | std::ios::binary);
    out << "From " << from.asPlainString();
    for (const Tamnet::EmailAddr& recipient : to) {
        out << ' ' << recipient.asPlainString();
    }
    out << '\n' << message << '\n';
    out.flush();
    if (!out) {
        TAMTK_THROW(MailLost, "file_agent",
                    "cannot append to " << path->second << "; the alert is lost");
    }
}
