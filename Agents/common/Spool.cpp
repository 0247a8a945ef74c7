#include "Agents/common/Spool.h"

#include <dirent.h>
#include <sys/stat.h>

#include "Agents/common/AgentException.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/Spool";
const EnvelopeFormat _format{
    "X-Spool-From: ", "X-Spool-To: ", "X-Spool-Failure: ", "X-Spool-Queued: "};

Envelope _envelope(const SpooledMessage& message, const std::string& failure) {
    return Envelope{message.from, message.to, message.queued, failure, message.message};
}

bool _load(const EnvelopeFolder& folder, const std::string& name, SpooledMessage& out,
           std::string& failure) {
    Envelope mail;
    std::string why;
    switch (folder.load(name, mail, why)) {
        case EnvelopeFolder::Load::Gone:
            return false;
        case EnvelopeFolder::Load::Invalid:
            TAMTK_THROW(DeliveryException, _source,
                        "the spool file \"" << folder.mailDir() << "/" << name
                                            << "\" is not spooled mail: " << why);
        case EnvelopeFolder::Load::Done:
            break;
    }
    out = SpooledMessage{mail.from, std::move(mail.to), std::move(mail.message), mail.time};
    failure = mail.note;
    return true;
}

}  // namespace

Spool::Spool(const std::string& dir, const std::string& owner)
    : pending_(dir, _format, owner), failed_(pending_.path() + "/failed", _format) {
    failed_.create();
}

std::string Spool::folder(SpoolState state) const {
    return state == SpoolState::Waiting ? pending_.mailDir() : failed_.mailDir();
}

std::string Spool::put(const SpooledMessage& message) {
    return pending_.put(_envelope(message, ""));
}

std::string Spool::putFailed(const SpooledMessage& message, const std::string& failure) {
    return failed_.put(_envelope(message, failure));
}

bool Spool::load(const std::string& name, SpooledMessage& out) const {
    std::string failure;  // a retry does not need it
    return _load(pending_, name, out, failure);
}

bool Spool::loadFailed(const std::string& name, SpooledMessage& out, std::string& failure) const {
    return _load(failed_, name, out, failure);
}

bool Spool::isSpool(const std::string& dir) {
    struct stat st;
    for (const char* sub : {"/new", "/tmp", "/failed/new"}) {
        if (stat((dir + sub).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            return false;
        }
    }
    return true;
}

std::string Spool::requeue(const std::string& name) {
    SpooledMessage message;
    std::string failure;
    if (!loadFailed(name, message, failure)) {
        TAMTK_THROW(DeliveryException, _source,
                    "\"" << name << "\" is not in \"" << failed_.mailDir() << "\"");
    }
    // The waiting copy first: a crash in between leaves the message in both
    // places, never in neither.
    const std::string renamed = put(message);
    removeFailed(name);
    return renamed;
}

bool Spool::unfinished() const {
    for (const EnvelopeFolder* m : {static_cast<const EnvelopeFolder*>(&pending_), &failed_}) {
        if (DIR* d = opendir((m->path() + "/tmp").c_str())) {
            bool any = false;
            while (dirent* e = readdir(d)) {
                any = any || e->d_name[0] != '.';
            }
            closedir(d);
            if (any) {
                return true;
            }
        }
    }
    return false;
}

std::size_t Spool::removeLeftovers() {
    // Every write to the spool is over in moments, so a file whose writer no
    // longer runs is an unfinished one; a day and a half covers a writer
    // whose name tells no process.
    const long age = 36 * 3600;
    return pending_.removeLeftovers(age, true) + failed_.removeLeftovers(age, true);
}

}  // namespace EmailAgents
}  // namespace Osk
