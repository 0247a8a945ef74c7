#include "Agents/smtp/SmtpSettings.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include <curl/curl.h>

#include "Agents/common/EngineParams.h"

namespace Osk {
namespace EmailAgents {

namespace {

// Only what libcurl can use as an SMTP address, and no credentials in it:
// those belong in username/password so that no message ever shows them.
void _checkUrl(const ParamReader& reader, const std::string& url) {
    std::string rest;
    if (url.compare(0, 7, "smtp://") == 0) {
        rest = url.substr(7);
    } else if (url.compare(0, 8, "smtps://") == 0) {
        rest = url.substr(8);
    } else {
        reader.fail(
            "url", "has the value \"" + url + "\"; expected smtp://host:port or smtps://host:port");
    }
    const std::string authority = rest.substr(0, rest.find('/'));
    if (authority.find('@') != std::string::npos) {
        // The value itself is not repeated: it holds a secret.
        reader.fail("url",
                    "must not contain a user name or password; use the parameters "
                    "username and password");
    }
    for (char c : url) {
        if (static_cast<unsigned char>(c) <= 0x20 || c == 0x7f) {
            reader.fail("url", "has the value \"" + url + "\" with a blank or control character");
        }
    }
    if (authority.empty() || authority[0] == ':') {
        reader.fail("url", "has the value \"" + url + "\" without a host");
    }
}

// Fallback relays are given like a mail server's: one value, separated by blanks.
std::vector<std::string> _relays(const std::string& value) {
    std::vector<std::string> out;
    std::size_t pos = 0;
    while (pos < value.size()) {
        if (value[pos] == ' ' || value[pos] == '\t') {
            ++pos;
            continue;
        }
        const std::size_t end = value.find_first_of(" \t", pos);
        out.push_back(value.substr(pos, end == std::string::npos ? std::string::npos : end - pos));
        pos = end == std::string::npos ? value.size() : end;
    }
    return out;
}

std::string _readPasswordFile(const ParamReader& reader, const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        const int err = errno;
        reader.fail("password_file",
                    "names \"" + path + "\", which cannot be read: " + std::strerror(err));
    }
    std::ostringstream content;
    content << in.rdbuf();
    std::string password = content.str();
    // One line; the editor's final line feed is not part of the password.
    while (!password.empty() && (password.back() == '\n' || password.back() == '\r')) {
        password.pop_back();
    }
    if (password.empty()) {
        reader.fail("password_file", "names \"" + path + "\", which is empty");
    }
    if (password.find('\n') != std::string::npos) {
        reader.fail("password_file", "names \"" + path + "\", which holds more than one line");
    }
    return password;
}

}  // namespace

SmtpSettings SmtpSettings::fromParams(const Params& params) {
    std::vector<const char*> known = {"url",
                                      "starttls",
                                      "verify_peer",
                                      "ca_file",
                                      "tls_min_version",
                                      "client_certificate",
                                      "client_key",
                                      "password",
                                      "password_file",
                                      "allow_plaintext_auth",
                                      "timeout",
                                      "spool",
                                      "drain",
                                      "connections",
                                      "queue",
                                      "metrics"};
    known.insert(known.end(), oauth2ParamNames().begin(), oauth2ParamNames().end());
    const ParamReader reader("SMTP agent", params, known);
    SmtpSettings s;
    s.url = reader.required("url");
    s.relays = _relays(s.url);
    if (s.relays.empty()) {
        reader.fail("url", "must not be empty");
    }
    for (const std::string& relay : s.relays) {
        _checkUrl(reader, relay);
    }

    const std::string starttls = reader.choice("starttls", {"no", "try", "required"}, "try");
    s.starttls = starttls == "no"    ? StartTls::No
                 : starttls == "try" ? StartTls::Try
                                     : StartTls::Required;
    s.verifyPeer = reader.flag("verify_peer", true);
    if (reader.has("ca_file")) {
        s.caFile = reader.required("ca_file");
        std::ifstream probe(s.caFile);
        if (!probe) {
            reader.fail("ca_file", "names \"" + s.caFile + "\", which cannot be read");
        }
    }
    const std::string tls = reader.choice("tls_min_version", {"1.2", "1.3"}, "");
    s.tlsMinVersion = tls == "1.2"   ? CURL_SSLVERSION_TLSv1_2
                      : tls == "1.3" ? CURL_SSLVERSION_TLSv1_3
                                     : 0;
    if (reader.has("client_certificate") != reader.has("client_key")) {
        reader.fail(reader.has("client_key") ? "client_key" : "client_certificate",
                    "is given without \"client_certificate\" and \"client_key\" both");
    }
    if (reader.has("client_certificate")) {
        const std::pair<const char*, std::string*> files[] = {
            {"client_certificate", &s.clientCertificate}, {"client_key", &s.clientKey}};
        for (const auto& file : files) {
            *file.second = reader.required(file.first);
            if (!std::ifstream(*file.second)) {
                reader.fail(file.first, "names \"" + *file.second + "\", which cannot be read");
            }
        }
    }

    if (reader.has("password") && reader.has("password_file")) {
        reader.fail("password_file", "and \"password\" are both given; use one of them");
    }
    s.allowPlaintextAuth = reader.flag("allow_plaintext_auth", false);
    OAuth2Context context;
    context.caFile = s.caFile;
    context.verifyPeer = s.verifyPeer;
    context.allowPlaintextAuth = s.allowPlaintextAuth;
    s.timeoutMs = reader.milliseconds("timeout", 30, 3600);
    context.timeoutMs = s.timeoutMs;
    s.oauth2 = readOAuth2Settings("SMTP agent", params, context);
    if (s.oauth2.enabled) {
        // The token takes the password's place.
        s.username = s.oauth2.username;
        if (reader.has("password") || reader.has("password_file")) {
            reader.fail(reader.has("password") ? "password" : "password_file",
                        "is given while auth is \"oauth2\"");
        }
    } else if (reader.has("username")) {
        s.username = reader.required("username");
        if (reader.has("password")) {
            s.password = reader.required("password");
        } else if (reader.has("password_file")) {
            s.passwordFile = reader.required("password_file");
            s.password = _readPasswordFile(reader, s.passwordFile);
        } else {
            reader.fail("username", "is given without \"password\" or \"password_file\"");
        }
    } else if (reader.has("password") || reader.has("password_file")) {
        reader.fail(reader.has("password") ? "password" : "password_file",
                    "is given without \"username\"");
    }

    bool plainRelay = false;
    for (const std::string& relay : s.relays) {
        plainRelay = plainRelay || relay.compare(0, 8, "smtps://") != 0;
    }
    if (s.hasCredentials() && !s.allowPlaintextAuth && s.starttls == StartTls::No && plainRelay) {
        reader.fail("starttls",
                    "is \"no\" while a user name and password are given: they would cross the "
                    "network unencrypted; use starttls=try or required, an smtps:// url, or "
                    "allow_plaintext_auth=yes on a trusted test network");
    }

    const EngineParams engine = readEngineParams(reader);
    s.spool = engine.spool;
    s.drainMs = engine.drainMs;
    s.connections = engine.connections;
    s.queue = engine.queue;
    return s;
}

std::string SmtpSettings::secretFileWarning() const {
    std::string warnings;
    const std::pair<const char*, const std::string*> files[] = {{"password_file", &passwordFile},
                                                                {"client_key", &clientKey}};
    for (const auto& file : files) {
        struct stat status;
        if (file.second->empty() || ::stat(file.second->c_str(), &status) != 0 ||
            (status.st_mode & (S_IRGRP | S_IROTH)) == 0) {
            continue;
        }
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(status.st_mode & 07777));
        warnings += std::string(warnings.empty() ? "" : "; ") + "SMTP agent: parameter \"" +
                    file.first + "\" names \"" + *file.second + "\", which " +
                    ((status.st_mode & S_IROTH) != 0 ? "every user" : "its group") +
                    " may read (mode " + mode + "); let its owner alone read it (chmod 600)";
    }
    return warnings;
}

}  // namespace EmailAgents
}  // namespace Osk
