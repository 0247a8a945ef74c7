// The render agent's plug-in entry: every mail is printed on standard output
// and counts as delivered. Nothing is sent, written or connected, so a check
// or a probe has nothing to look at.

#include <cstdio>

#include "Agents/render/RenderMail.h"
#include "Osk/EmailAgent.h"
#include "Toolkit/Exception.h"

namespace {
unsigned long _mails = 0;
}  // namespace

OSK_AGENT_EXPORT void sendEmail(const Tamnet::EmailAddr& /*from*/,
                                const Osk::EmailChannel::ToList& /*to*/, const char* message,
                                const std::map<std::string, std::string>& /*params*/) {
    if (message == nullptr) {
        return;
    }
    const std::string text =
        "---- mail " + std::to_string(++_mails) + " ----\n" + Osk::EmailAgents::renderMail(message);
    // A mail that did not reach the reader was shown to nobody.
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        TAMTK_THROW(Tamtk::Exception, "Agents/render",
                    "render agent: mail " << _mails << " could not be written to standard output");
    }
}
