#include "Agents/digest/Hold.h"

#include <iostream>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/digest/Hold";
const EnvelopeFormat _format{"X-Digest-From: ", "X-Digest-To: ", nullptr, "X-Digest-Held: "};

}  // namespace

Hold::Hold(const std::string& dir) : box_(dir, _format, "Digest agent: parameter \"hold\"") {
    if (!box_.tryLock()) {
        TAMTK_THROW(AgentParamException, _source,
                    "Digest agent: parameter \"hold\": \""
                        << box_.path() << "\" is in use by another digest agent");
    }
    // Only the holder of the lock writes here, so whatever lies in tmp/ was
    // left by one that crashed in the middle of a write.
    box_.removeLeftovers(-1, false);
}

std::string Hold::put(const HeldMail& mail) {
    return box_.put(Envelope{mail.from, mail.to, mail.held, "", mail.message});
}

bool Hold::load(const std::string& name, HeldMail& out) const {
    Envelope mail;
    std::string why;
    switch (box_.load(name, mail, why)) {
        case EnvelopeFolder::Load::Gone:
            TAMTK_THROW(DeliveryException, _source,
                        "Digest agent: \"" << box_.mailDir() << "/" << name << "\" is gone");
        case EnvelopeFolder::Load::Invalid: {
            std::lock_guard<std::mutex> lock(mutex_);
            refused_[name] = why;
            return false;
        }
        case EnvelopeFolder::Load::Done:
            break;
    }
    out = HeldMail{mail.from, std::move(mail.to), mail.time, std::move(mail.message)};
    return true;
}

void Hold::setAside(const std::string& name) {
    box_.moveTo(name, box_.path() + "/cur");
    std::string why;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        why = refused_[name];
        refused_.erase(name);
    }
    std::cerr << "Digest agent: \"" << box_.mailDir() << "/" << name << "\" is not held mail"
              << (why.empty() ? "" : " (" + why + ")") << "; it was moved to \"" << box_.path()
              << "/cur\"" << std::endl;
}

}  // namespace EmailAgents
}  // namespace Osk
