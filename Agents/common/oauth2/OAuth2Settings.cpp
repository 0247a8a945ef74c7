#include "Agents/common/oauth2/OAuth2Settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <sstream>

#include "Agents/common/oauth2/ClientAssertion.h"
#include "Agents/common/oauth2/OAuth2Exceptions.h"
#include "Agents/common/oauth2/SecretFiles.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/oauth2/OAuth2Settings";

struct Provider {
    const char* name;
    const char* tokenUrl;  // "@" stands for the tenant
    const char* scope;     // nullptr: the context's microsoft365Scope
};
const Provider _providers[] = {
    {"microsoft365", "https://login.microsoftonline.com/@/oauth2/v2.0/token", nullptr},
    {"google", "https://oauth2.googleapis.com/token", "https://mail.google.com/"},
};

// The endpoint gets the client's credentials: https only, unless the
// operator allowed credentials in clear (a loopback test setup). No user
// name or password in it, so that a report may show it.
void _checkUrl(const ParamReader& reader, const std::string& url, bool allowPlaintext) {
    const char* name = "oauth2_token_url";
    const bool https = url.compare(0, 8, "https://") == 0;
    const bool http = url.compare(0, 7, "http://") == 0;
    if (!https && !http) {
        reader.fail(name, "has the value \"" + url + "\"; expected https://host/path");
    }
    if (http && !allowPlaintext) {
        reader.fail(name, "is \"" + url +
                              "\": the client's credentials would cross the network "
                              "unencrypted; use https, or allow_plaintext_auth=yes on a trusted "
                              "test network");
    }
    const std::string rest = url.substr(https ? 8 : 7);
    const std::string authority = rest.substr(0, rest.find('/'));
    if (authority.find('@') != std::string::npos) {
        reader.fail(name, "must not contain a user name or password");
    }
    for (char c : url) {
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
            reader.fail(name, "has the value \"" + url + "\" with a blank or control character");
        }
    }
    if (authority.empty() || authority[0] == ':') {
        reader.fail(name, "has the value \"" + url + "\" without a host");
    }
}

void _endpointDefaults(const ParamReader& reader, OAuth2Settings& s) {
    const std::string provider = reader.choice("oauth2_provider", {"microsoft365", "google"}, "");
    if (reader.has("oauth2_tenant") && provider != "microsoft365") {
        reader.fail("oauth2_tenant", "is given without oauth2_provider=microsoft365");
    }
    std::string url, scope;
    for (const Provider& p : _providers) {
        if (provider == p.name) {
            url = p.tokenUrl;
            scope = p.scope ? p.scope : s.context.microsoft365Scope;
        }
    }
    const std::size_t tenantAt = url.find('@');
    if (tenantAt != std::string::npos && !reader.has("oauth2_token_url")) {
        const std::string tenant = reader.required("oauth2_tenant");
        for (char c : tenant) {
            if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.') {
                reader.fail("oauth2_tenant",
                            "has the value \"" + tenant +
                                "\"; expected a tenant id or domain (letters, digits, '-', '.')");
            }
        }
        url.replace(tenantAt, 1, tenant);
    }
    s.tokenUrl = reader.has("oauth2_token_url") ? reader.required("oauth2_token_url") : url;
    if (s.tokenUrl.empty()) {
        reader.fail("oauth2_token_url", "is required unless oauth2_provider is given");
    }
    _checkUrl(reader, s.tokenUrl, s.context.allowPlaintextAuth);
    s.scope = reader.has("oauth2_scope") ? reader.required("oauth2_scope") : scope;
    s.clientId = reader.required("oauth2_client_id");
}

// The first of `names` that is given, or nullptr.
const char* _firstGiven(const ParamReader& reader, std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (reader.has(name)) {
            return name;
        }
    }
    return nullptr;
}

void _checkReadable(const std::string& file, const char* what, bool secret, std::string& warnings) {
    if (access(file.c_str(), R_OK) != 0) {
        TAMTK_THROW(OAuth2ConfigException, _source,
                    "cannot read the " << what << " file \"" << file << "\"");
    }
    struct stat st;
    if (secret && stat(file.c_str(), &st) == 0 && (st.st_mode & 077) != 0) {
        warnings += std::string(warnings.empty() ? "" : "; ") + "the " + what + " file \"" + file +
                    "\" can be read by its group or by others (chmod 600 it)";
    }
}

bool _runnable(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        return access(program.c_str(), X_OK) == 0;
    }
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (access(((folder.empty() ? "." : folder) + "/" + program).c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

const std::vector<const char*>& oauth2ParamNames() {
    static const std::vector<const char*> names = {"auth",
                                                   "oauth2_mechanism",
                                                   "username",
                                                   "oauth2_provider",
                                                   "oauth2_tenant",
                                                   "oauth2_token_url",
                                                   "oauth2_client_id",
                                                   "oauth2_scope",
                                                   "oauth2_client_secret_file",
                                                   "oauth2_client_certificate",
                                                   "oauth2_client_key",
                                                   "oauth2_refresh_token_file",
                                                   "oauth2_token_command"};
    return names;
}

OAuth2Settings readOAuth2Settings(const char* agent, const Params& params,
                                  const OAuth2Context& context) {
    Params own;
    for (const char* name : oauth2ParamNames()) {
        if (params.count(name) != 0) {
            own[name] = params.at(name);
        }
    }
    const ParamReader reader(agent, own, oauth2ParamNames());
    OAuth2Settings s;
    s.context = context;
    if (reader.choice("auth", {"password", "oauth2"}, "password") != "oauth2") {
        for (const auto& entry : own) {
            if (entry.first.compare(0, 7, "oauth2_") == 0) {
                reader.fail(entry.first.c_str(), "is given while auth is not \"oauth2\"");
            }
        }
        return s;
    }
    s.enabled = true;
    s.username = reader.required("username");
    s.mechanism =
        reader.choice("oauth2_mechanism", {"XOAUTH2", "OAUTHBEARER"}, "XOAUTH2") == "XOAUTH2"
            ? OAuth2Mechanism::XOAuth2
            : OAuth2Mechanism::OAuthBearer;

    if (reader.has("oauth2_token_command")) {
        const char* other = _firstGiven(
            reader, {"oauth2_provider", "oauth2_tenant", "oauth2_token_url", "oauth2_client_id",
                     "oauth2_scope", "oauth2_client_secret_file", "oauth2_client_certificate",
                     "oauth2_client_key", "oauth2_refresh_token_file"});
        if (other) {
            reader.fail("oauth2_token_command",
                        std::string("and \"") + other +
                            "\" are both given; the command is the only token source then");
        }
        std::istringstream words(reader.required("oauth2_token_command"));
        for (std::string word; words >> word;) {
            s.command.push_back(word);
        }
        if (s.command.empty()) {
            reader.fail("oauth2_token_command", "must not be blank");
        }
        s.source = TokenSourceKind::Command;
        return s;
    }

    const bool certificate =
        reader.has("oauth2_client_certificate") || reader.has("oauth2_client_key");
    if (reader.has("oauth2_refresh_token_file")) {
        if (certificate) {
            reader.fail(
                reader.has("oauth2_client_key") ? "oauth2_client_key" : "oauth2_client_certificate",
                "is given with oauth2_refresh_token_file; a refresh token is sent with "
                "the client id and at most a client secret");
        }
        s.source = TokenSourceKind::RefreshToken;
        s.refreshTokenFile = reader.required("oauth2_refresh_token_file");
    } else if (certificate) {
        if (reader.has("oauth2_client_secret_file")) {
            reader.fail("oauth2_client_secret_file",
                        "is given with a client certificate; use one of them");
        }
        s.source = TokenSourceKind::ClientCertificate;
        s.clientCertificate = reader.required("oauth2_client_certificate");
        s.clientKey = reader.required("oauth2_client_key");
    } else if (reader.has("oauth2_client_secret_file")) {
        s.source = TokenSourceKind::ClientSecret;
    } else {
        reader.fail("auth",
                    "is \"oauth2\" without a token source; give oauth2_client_secret_file, "
                    "oauth2_client_certificate with oauth2_client_key, oauth2_refresh_token_file "
                    "or oauth2_token_command");
    }
    if (reader.has("oauth2_client_secret_file")) {
        s.clientSecretFile = reader.required("oauth2_client_secret_file");
    }
    _endpointDefaults(reader, s);
    if (s.scope.empty() && s.source != TokenSourceKind::RefreshToken) {
        reader.fail("oauth2_scope",
                    "is required for client credentials unless oauth2_provider is given");
    }
    return s;
}

void checkOAuth2Settings(const OAuth2Settings& s) {
    if (!s.enabled) {
        return;
    }
    std::string warnings;
    if (s.source == TokenSourceKind::Command) {
        if (!_runnable(s.command.front())) {
            TAMTK_THROW(
                OAuth2ConfigException, _source,
                "the OAuth2 token command's program \"" << s.command.front() << "\" cannot be run");
        }
        return;
    }
    if (!s.clientSecretFile.empty()) {
        _checkReadable(s.clientSecretFile, "OAuth2 client secret", true, warnings);
        readSecretFile(s.clientSecretFile, "OAuth2 client secret");
    }
    if (!s.refreshTokenFile.empty()) {
        _checkReadable(s.refreshTokenFile, "OAuth2 refresh token", true, warnings);
        readSecretFile(s.refreshTokenFile, "OAuth2 refresh token");
    }
    if (s.source == TokenSourceKind::ClientCertificate) {
        _checkReadable(s.clientKey, "OAuth2 client key", true, warnings);
        clientAssertion(s.clientCertificate, s.clientKey, s.clientId, s.tokenUrl);
    }
    if (!warnings.empty()) {
        TAMTK_THROW(CheckWarningException, _source, warnings);
    }
}

}  // namespace EmailAgents
}  // namespace Osk
