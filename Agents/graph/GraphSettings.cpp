#include "Agents/graph/GraphSettings.h"

#include <unistd.h>

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _agent = "Graph agent";

std::vector<const char*> _known() {
    std::vector<const char*> names = {"graph_url", "mailbox", "verify_peer", "ca_file",
                                      "allow_plaintext_auth"};
    names.insert(names.end(), std::begin(engineParamNames), std::end(engineParamNames));
    for (const char* name : oauth2ParamNames()) {
        names.push_back(name);
    }
    return names;
}

}  // namespace

GraphSettings GraphSettings::fromParams(const Params& params) {
    const ParamReader reader(_agent, params, _known());
    GraphSettings s;
    s.graphUrl = reader.text("graph_url", s.graphUrl);
    while (!s.graphUrl.empty() && s.graphUrl.back() == '/') {
        s.graphUrl.pop_back();
    }
    s.allowPlaintextAuth = reader.flag("allow_plaintext_auth", false);
    const bool https = s.graphUrl.compare(0, 8, "https://") == 0;
    const bool http = s.graphUrl.compare(0, 7, "http://") == 0;
    if (!https && !(http && s.allowPlaintextAuth)) {
        // The bearer token goes with every request: never in clear.
        reader.fail("graph_url", "has the value \"" + s.graphUrl +
                                     "\"; expected https://host (http:// only with "
                                     "allow_plaintext_auth=yes on a trusted test network)");
    }
    for (char c : s.graphUrl) {
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
            reader.fail("graph_url", "has a blank or control character");
        }
    }
    s.mailbox = reader.text("mailbox", "");
    s.verifyPeer = reader.flag("verify_peer", true);
    if (reader.has("ca_file")) {
        s.caFile = reader.required("ca_file");
        if (::access(s.caFile.c_str(), R_OK) != 0) {
            reader.fail("ca_file", "names \"" + s.caFile + "\", which cannot be read");
        }
    }
    s.engine = readEngineParams(reader);

    OAuth2Context context;
    context.caFile = s.caFile;
    context.verifyPeer = s.verifyPeer;
    context.allowPlaintextAuth = s.allowPlaintextAuth;
    context.timeoutMs = s.engine.timeoutMs;
    context.microsoft365Scope = "https://graph.microsoft.com/.default";
    // Graph signs in with OAuth2 only, and names the mailbox in each
    // request's URL rather than in a sign-in: the token library's
    // "username" is then only a name for its reports.
    Params oauth2 = params;
    oauth2.emplace("auth", "oauth2");
    oauth2.emplace("username", s.mailbox.empty() ? "the envelope sender" : s.mailbox);
    if (reader.text("auth", "oauth2") != "oauth2") {
        reader.fail("auth", "must be \"oauth2\": Microsoft Graph takes no password");
    }
    s.oauth2 = readOAuth2Settings(_agent, oauth2, context);
    return s;
}

}  // namespace EmailAgents
}  // namespace Osk
