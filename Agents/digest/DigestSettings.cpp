#include "Agents/digest/DigestSettings.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _own[] = {"agent", "burst", "window", "hold"};

// The digest's own parameters into `mine`, the rest into `settings.inner`.
void _split(const Params& params, Params& mine, DigestSettings& settings) {
    for (const auto& entry : params) {
        bool isOwn = false;
        for (const char* name : _own) {
            isOwn = isOwn || entry.first == name;
        }
        (isOwn ? mine : settings.inner).insert(entry);
    }
}

}  // namespace

DigestSettings DigestSettings::fromParams(const Params& params) {
    Params mine;
    DigestSettings settings;
    _split(params, mine, settings);
    const ParamReader reader("Digest agent", mine, {"agent", "burst", "window", "hold"});
    settings.agent = reader.required("agent");
    settings.hold = reader.required("hold");
    settings.burst = static_cast<unsigned long>(reader.integer("burst", 10, 0, 1000000));
    // A day at most: held mail that waits longer is no alert any more.
    settings.windowMs = reader.milliseconds("window", 300, 86400);
    return settings;
}

DigestSettings DigestSettings::deliveringOnly(const Params& params) {
    Params mine;
    DigestSettings settings;
    _split(params, mine, settings);
    settings.agent =
        ParamReader("Digest agent", mine, {"agent", "burst", "window", "hold"}).required("agent");
    return settings;
}

}  // namespace EmailAgents
}  // namespace Osk
