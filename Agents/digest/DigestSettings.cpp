#include "Agents/digest/DigestSettings.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _own[] = {"agent", "burst", "window", "hold", "metrics"};
const std::vector<const char*> _ownNames(std::begin(_own), std::end(_own));

}  // namespace

std::pair<Params, Params> DigestSettings::split(const Params& params) {
    std::pair<Params, Params> parts;
    for (const auto& entry : params) {
        bool isOwn = false;
        for (const char* name : _own) {
            isOwn = isOwn || entry.first == name;
        }
        (isOwn ? parts.first : parts.second).insert(entry);
    }
    return parts;
}

DigestSettings DigestSettings::fromParams(const Params& params) {
    std::pair<Params, Params> parts = split(params);
    const Params& mine = parts.first;
    DigestSettings settings;
    settings.inner = std::move(parts.second);
    const ParamReader reader("Digest agent", mine, _ownNames);
    settings.agent = reader.required("agent");
    settings.hold = reader.required("hold");
    settings.burst = static_cast<unsigned long>(reader.integer("burst", 10, 0, 1000000));
    // A day at most: held mail that waits longer is no alert any more.
    settings.windowMs = reader.milliseconds("window", 300, 86400);
    settings.metrics = reader.text("metrics", "");
    return settings;
}

DigestSettings DigestSettings::deliveringOnly(const Params& params) {
    std::pair<Params, Params> parts = split(params);
    DigestSettings settings;
    settings.inner = std::move(parts.second);
    settings.agent = ParamReader("Digest agent", parts.first, _ownNames).required("agent");
    return settings;
}

}  // namespace EmailAgents
}  // namespace Osk
