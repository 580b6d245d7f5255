#include "pelm_server/certificates.hpp"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
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

// Written beside and renamed into place, so a server starting meanwhile never reads half a file.
void writePem(const std::filesystem::path& path, X509* cert, EVP_PKEY* key) {
    const auto temporary = std::filesystem::path(path.string() + ".new");
    {
        File file(std::fopen(temporary.c_str(), "w"));
        check(file != nullptr, "cannot write the certificate files");
        if (key != nullptr) ::fchmod(::fileno(file.get()), 0600);
        if (cert != nullptr) check(PEM_write_X509(file.get(), cert) == 1, "cannot write a certificate");
        if (key != nullptr) {
            check(PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
                  "cannot write a key");
        }
        check(std::fflush(file.get()) == 0, "cannot write the certificate files");
    }
    std::filesystem::rename(temporary, path);
}

Cert readCertificate(const std::filesystem::path& path) {
    File file(std::fopen(path.c_str(), "r"));
    return Cert(file ? PEM_read_X509(file.get(), nullptr, nullptr, nullptr) : nullptr);
}

Key readKey(const std::filesystem::path& path) {
    File file(std::fopen(path.c_str(), "r"));
    return Key(file ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr);
}

// Valid now and still for `margin`.
bool validFor(X509* cert, std::time_t margin) {
    std::time_t later = std::time(nullptr) + margin;
    return X509_cmp_current_time(X509_get0_notBefore(cert)) < 0 &&
           X509_cmp_time(X509_get0_notAfter(cert), &later) > 0;
}

// The folder's certificates, when all three are there, belong together and are not about to expire.
std::optional<ThrowawayCertificate> reusable(const ThrowawayCertificate& files) {
    const auto ca = readCertificate(files.caFile);
    const auto server = readCertificate(files.certFile);
    const auto key = readKey(files.keyFile);
    if (!ca || !server || !key) return std::nullopt;
    constexpr std::time_t kWeek = 7L * 24 * 60 * 60;
    if (X509_check_private_key(server.get(), key.get()) != 1) return std::nullopt;
    if (X509_verify(server.get(), X509_get0_pubkey(ca.get())) != 1) return std::nullopt;
    if (!validFor(ca.get(), kWeek) || !validFor(server.get(), kWeek)) return std::nullopt;
    return files;
}

// Held while the folder is looked at or written, so two servers started together make one authority.
class FolderLock {
  public:
    explicit FolderLock(const std::filesystem::path& folder)
        : fd_(::open((folder / ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        check(fd_ >= 0, "cannot lock the certificate folder");
        ::flock(fd_, LOCK_EX);
    }
    ~FolderLock() { ::close(fd_); }
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

  private:
    int fd_;
};

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
    writePem(result.keyFile, nullptr, serverKey.get());
    writePem(result.certFile, server.get(), nullptr);
    writePem(result.caFile, ca.get(), nullptr);
    return result;
}

ThrowawayCertificate folderCertificate(const std::filesystem::path& folder, int days) {
    std::filesystem::create_directories(folder);
    FolderLock lock(folder);
    if (auto kept = reusable({folder / "ca.pem", folder / "cert.pem", folder / "key.pem"})) return *kept;
    return makeThrowawayCertificate(folder, days);
}

}  // namespace pelm::server
