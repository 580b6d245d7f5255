#include "pelm_server/certificates.hpp"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace pelm::server {
namespace {

struct Deleters {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* cert) const { X509_free(cert); }
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using Key = std::unique_ptr<EVP_PKEY, Deleters>;
using Cert = std::unique_ptr<X509, Deleters>;
using File = std::unique_ptr<std::FILE, Deleters>;

void check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("certificate: ") + what);
}

Key newKey() {
    Key key(EVP_EC_gen("P-256"));
    check(key != nullptr, "key generation failed");
    return key;
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
    check(extension != nullptr, "bad extension");
    X509_add_ext(cert, extension, -1);
    X509_EXTENSION_free(extension);
}

Cert newCertificate(EVP_PKEY* key, const char* commonName, long serial, int days) {
    Cert cert(X509_new());
    check(cert != nullptr, "X509_new failed");
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 60L * 60 * 24 * days);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("pelm-server"),
                               -1, -1, 0);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(commonName),
                               -1, -1, 0);
    return cert;
}

void writePem(const std::filesystem::path& path, X509* cert, EVP_PKEY* key) {
    File file(std::fopen(path.c_str(), "w"));
    check(file != nullptr, "cannot write the certificate files");
    if (cert != nullptr) check(PEM_write_X509(file.get(), cert) == 1, "cannot write a certificate");
    if (key != nullptr) {
        check(PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
              "cannot write a key");
    }
}

}  // namespace

ThrowawayCertificate makeThrowawayCertificate(const std::filesystem::path& folder, int days) {
    std::filesystem::create_directories(folder);
    const auto caKey = newKey();
    const auto ca = newCertificate(caKey.get(), "pelm-server throwaway authority", 1, days);
    X509_set_issuer_name(ca.get(), X509_get_subject_name(ca.get()));
    addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
    check(X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0, "signing the authority failed");

    const auto serverKey = newKey();
    const auto server = newCertificate(serverKey.get(), "localhost", 2, days);
    X509_set_issuer_name(server.get(), X509_get_subject_name(ca.get()));
    addExtension(server.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
    addExtension(server.get(), ca.get(), NID_key_usage, "critical,digitalSignature");
    addExtension(server.get(), ca.get(), NID_ext_key_usage, "serverAuth");
    addExtension(server.get(), ca.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");
    addExtension(server.get(), ca.get(), NID_authority_key_identifier, "keyid:always");
    check(X509_sign(server.get(), caKey.get(), EVP_sha256()) > 0, "signing the server certificate failed");

    ThrowawayCertificate result{folder / "ca.pem", folder / "cert.pem", folder / "key.pem"};
    writePem(result.caFile, ca.get(), nullptr);
    writePem(result.certFile, server.get(), nullptr);
    writePem(result.keyFile, nullptr, serverKey.get());
    std::filesystem::permissions(result.keyFile,
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    return result;
}

}  // namespace pelm::server
