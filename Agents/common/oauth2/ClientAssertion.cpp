#include "Agents/common/oauth2/ClientAssertion.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "Agents/common/oauth2/Jwt.h"
#include "Agents/common/oauth2/OAuth2Exceptions.h"

namespace Osk {
namespace EmailAgents {

namespace {

const char* const _source = "Agents/oauth2/ClientAssertion";
const long _assertionLifetime = 300;

struct OpenSslFree {
    void operator()(BIO* p) const { BIO_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
template <class T>
using OpenSslPtr = std::unique_ptr<T, OpenSslFree>;

OpenSslPtr<BIO> _open(const std::string& file, const char* what) {
    OpenSslPtr<BIO> bio(BIO_new_file(file.c_str(), "r"));
    if (!bio) {
        TAMTK_THROW(OAuth2ConfigException, _source,
                    "cannot read the OAuth2 client " << what << " \"" << file << "\"");
    }
    return bio;
}

// An encrypted key would make OpenSSL ask for a pass phrase on the terminal.
int _noPassphrase(char*, int, int, void*) {
    return 0;
}

std::string _digest(const EVP_MD* md, const std::string& bytes) {
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(bytes.data(), bytes.size(), out, &n, md, nullptr);
    return std::string(reinterpret_cast<const char*>(out), n);
}

std::string _randomId() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        TAMTK_THROW(OAuth2TemporaryException, _source, "no random bytes for an OAuth2 assertion");
    }
    return base64Url(std::string(reinterpret_cast<const char*>(bytes), sizeof bytes));
}

}  // namespace

std::string clientAssertion(const std::string& certificateFile, const std::string& keyFile,
                            const std::string& clientId, const std::string& tokenUrl) {
    OpenSslPtr<X509> cert(
        PEM_read_bio_X509(_open(certificateFile, "certificate").get(), nullptr, nullptr, nullptr));
    if (!cert) {
        TAMTK_THROW(
            OAuth2ConfigException, _source,
            "the OAuth2 client certificate \"" << certificateFile << "\" holds no PEM certificate");
    }
    OpenSslPtr<EVP_PKEY> key(
        PEM_read_bio_PrivateKey(_open(keyFile, "key").get(), nullptr, _noPassphrase, nullptr));
    if (!key || EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
        TAMTK_THROW(OAuth2ConfigException, _source,
                    "the OAuth2 client key \"" << keyFile
                                               << "\" holds no unencrypted RSA private key (PEM)");
    }
    if (X509_check_private_key(cert.get(), key.get()) != 1) {
        TAMTK_THROW(OAuth2ConfigException, _source,
                    "the OAuth2 client key \""
                        << keyFile << "\" does not belong to the certificate \"" << certificateFile
                        << "\"");
    }
    unsigned char* der = nullptr;
    const int derLength = i2d_X509(cert.get(), &der);
    const std::string certDer(reinterpret_cast<const char*>(der), derLength > 0 ? derLength : 0);
    OPENSSL_free(der);

    const long long now = std::time(nullptr);
    const nlohmann::json header = {{"alg", "RS256"},
                                   {"typ", "JWT"},
                                   {"x5t", base64Url(_digest(EVP_sha1(), certDer))},
                                   {"x5t#S256", base64Url(_digest(EVP_sha256(), certDer))}};
    const nlohmann::json claims = {{"aud", tokenUrl},
                                   {"iss", clientId},
                                   {"sub", clientId},
                                   {"jti", _randomId()},
                                   {"nbf", now},
                                   {"iat", now},
                                   {"exp", now + _assertionLifetime}};
    const std::string signingInput = base64Url(header.dump()) + "." + base64Url(claims.dump());

    OpenSslPtr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
    std::size_t length = 0;
    std::string signature;
    bool ok = ctx &&
              EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
              EVP_DigestSign(ctx.get(), nullptr, &length,
                             reinterpret_cast<const unsigned char*>(signingInput.data()),
                             signingInput.size()) == 1;
    if (ok) {
        signature.resize(length);
        ok = EVP_DigestSign(ctx.get(), reinterpret_cast<unsigned char*>(&signature[0]), &length,
                            reinterpret_cast<const unsigned char*>(signingInput.data()),
                            signingInput.size()) == 1;
        signature.resize(length);
    }
    if (!ok) {
        TAMTK_THROW(OAuth2ConfigException, _source,
                    "cannot sign an OAuth2 assertion with the key \"" << keyFile << "\"");
    }
    return signingInput + "." + base64Url(signature);
}

}  // namespace EmailAgents
}  // namespace Osk
