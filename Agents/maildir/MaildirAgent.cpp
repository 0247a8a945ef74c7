#include "Agents/maildir/MaildirAgent.h"

#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "Agents/common/AgentException.h"
#include "Agents/common/AgentMetrics.h"
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

// The counts written to each metrics file, kept (and the file written a
// last time) until the process ends; none without a file.
AgentMetrics* _metrics(const std::string& path) {
    struct Published {
        AgentMetrics counts;
        std::unique_ptr<Tamtk::MetricsFile> file;
    };
    static std::mutex mutex;
    static std::map<std::string, std::unique_ptr<Published>> published;
    if (path.empty()) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mutex);
    std::unique_ptr<Published>& entry = published[path];
    if (!entry) {
        entry.reset(new Published);
        AgentMetrics& counts = entry->counts;
        entry->file.reset(new Tamtk::MetricsFile(path, [&counts] {
            Tamtk::MetricsText out;
            counts.write(out);
            return out.str();
        }));
    }
    return &entry->counts;
}

}  // namespace

MaildirSettings MaildirSettings::fromParams(const Params& params) {
    ParamReader reader("Maildir agent", params, {"path", "fsync", "metrics"});
    MaildirSettings settings;
    settings.path = reader.required("path");
    settings.fsync = reader.flag("fsync", true);
    settings.metrics = reader.text("metrics", "");
    return settings;
}

std::string deliverToMaildir(const MaildirSettings& settings, const char* message) {
    TAMTK_ASSERT(message, "Agents/maildir");
    AgentMetrics* const metrics = _metrics(settings.metrics);
    const auto taken = std::chrono::steady_clock::now();
    const Maildir maildir(settings.path, settings.fsync);
    std::string name;
    try {
        _cleanOnce(maildir);
        const std::string headers = missingHeaders(message);
        name = maildir.deliver(
            {Piece{headers.data(), headers.size()}, Piece{message, std::strlen(message)}});
    } catch (...) {
        if (metrics) {
            metrics->count(AgentMetrics::Outcome::Lost, Cause::Disk);
        }
        throw;
    }
    if (metrics) {
        metrics->delivered(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - taken).count());
    }
    return maildir.newDir() + "/" + name;
}

}  // namespace EmailAgents
}  // namespace Osk
