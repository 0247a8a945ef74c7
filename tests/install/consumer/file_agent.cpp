// An email agent that appends every mail to one file, each after a line
// "From <sender> <recipients>" (the mbox way).

#include <fstream>

#include "Osk/EmailAgent.h"
#include "Toolkit/Exceptions.h"

namespace {

struct file_agent_tag;
typedef Tamtk::ExceptionT<file_agent_tag> _file_agent_error;

// Nothing kept the mail, so the channel counts the alert as lost.
class _mail_lost : public _file_agent_error, public Osk::EmailChannel::AlertLost {
public:
    using _file_agent_error::_file_agent_error;
};

}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& from, const Osk::EmailChannel::ToList& to,
                                const char* message,
                                const std::map<std::string, std::string>& params) {
    const auto path = params.find("path");
    if (params.size() != 1 || path == params.end() || path->second.empty()) {
        TAMTK_THROW(_file_agent_error, "file_agent", "the file agent takes one parameter, path");
    }
    if (message == nullptr) {
        return;  // a check of the parameters only
    }
    std::ofstream out(path->second, std::ios::app | std::ios::binary);
    out << "From " << from.asPlainString();
    for (const Tamnet::EmailAddr& recipient : to) {
        out << ' ' << recipient.asPlainString();
    }
    out << '\n' << message << '\n';
    out.flush();
    if (!out) {
        TAMTK_THROW(_mail_lost, "file_agent", "cannot append to " << path->second);
    }
}
