#include "pelm_server/certificates.hpp"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <set>
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

// 16 random bytes, positive: a serial no other certificate of the authority (or of another) shares, and that
// no one can guess.
void setRandomSerial(X509* cert) {
    unsigned char bytes[16];
    check(RAND_bytes(bytes, sizeof bytes) == 1, "no random bytes for a serial");
    bytes[0] = static_cast<unsigned char>((bytes[0] & 0x7F) | 0x01);
    BIGNUM* number = BN_bin2bn(bytes, sizeof bytes, nullptr);
    check(number != nullptr && BN_to_ASN1_INTEGER(number, X509_get_serialNumber(cert)) != nullptr,
          "cannot set a serial");
    BN_free(number);
}

Cert newCertificate(EVP_PKEY* key, const char* commonName, int days) {
    Cert cert(X509_new());
    check(cert != nullptr, "X509_new failed");
    X509_set_version(cert.get(), 2);
    setRandomSerial(cert.get());
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

constexpr std::time_t kWeek = 7L * 24 * 60 * 60;

// An address in its one canonical text ("::1", not "0:0:0:0:0:0:0:1"), so names compare as written.
std::optional<std::string> addressText(const std::string& name) {
    unsigned char bytes[16];
    char text[INET6_ADDRSTRLEN];
    for (const int family : {AF_INET, AF_INET6}) {
        if (::inet_pton(family, name.c_str(), bytes) == 1 && ::inet_ntop(family, bytes, text, sizeof text))
            return std::string(text);
    }
    return std::nullopt;
}

bool hostName(const std::string& name) {
    if (name.empty() || name.size() > 253) return false;
    std::size_t label = 0;
    for (std::size_t i = 0; i <= name.size(); ++i) {
        if (i == name.size() || name[i] == '.') {
            if (label == 0 || label > 63 || name[i - 1] == '-' || name[i - label] == '-') return false;
            label = 0;
        } else if (std::isalnum(static_cast<unsigned char>(name[i])) || name[i] == '-') {
            ++label;
        } else {
            return false;
        }
    }
    return true;
}

// "DNS:shop.lan" or "IP:192.168.1.20", as the server certificate's alternative names read.
std::set<std::string> alternativeNames(const ServerNames& names) {
    std::set<std::string> all{"DNS:localhost", "IP:127.0.0.1", "IP:::1"};
    for (const auto& name : names) {
        if (const auto problem = serverNameProblem(name)) throw std::runtime_error(*problem);
        if (const auto address = addressText(name)) {
            all.insert("IP:" + *address);
        } else {
            std::string lower = name;
            for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            all.insert("DNS:" + lower);
        }
    }
    return all;
}

std::set<std::string> alternativeNames(X509* cert) {
    std::set<std::string> all;
    auto* names = static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
        if (name->type == GEN_DNS) {
            const auto* text = ASN1_STRING_get0_data(name->d.dNSName);
            all.insert("DNS:" + std::string(reinterpret_cast<const char*>(text),
                                            static_cast<std::size_t>(ASN1_STRING_length(name->d.dNSName))));
        } else if (name->type == GEN_IPADD) {
            const int length = ASN1_STRING_length(name->d.iPAddress);
            char text[INET6_ADDRSTRLEN];
            if ((length == 4 || length == 16) &&
                ::inet_ntop(length == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(name->d.iPAddress), text,
                            sizeof text)) {
                all.insert(std::string("IP:") + text);
            }
        }
    }
    GENERAL_NAMES_free(names);
    return all;
}

std::string joined(const std::set<std::string>& names) {
    std::string text;
    for (const auto& name : names) text += (text.empty() ? "" : ",") + name;
    return text;
}

// The folder's server certificate and key, when they belong together, the authority signed them, they are
// not about to expire and they name exactly `names`.
bool serverReusable(const ThrowawayCertificate& files, X509* ca, const std::set<std::string>& names) {
    const auto server = readCertificate(files.certFile);
    const auto key = readKey(files.keyFile);
    return server && key && X509_check_private_key(server.get(), key.get()) == 1 &&
           X509_verify(server.get(), X509_get0_pubkey(ca)) == 1 && validFor(server.get(), kWeek) &&
           alternativeNames(server.get()) == names;
}

// A server certificate for `names`, signed by the authority, written with its key.
void issueServerCertificate(const ThrowawayCertificate& files, X509* ca, EVP_PKEY* caKey,
                            const std::set<std::string>& names, int days) {
    const auto serverKey = newKey();
    const auto server = newCertificate(serverKey.get(), "localhost", days);
    X509_set_issuer_name(server.get(), X509_get_subject_name(ca));
    addExtension(server.get(), ca, NID_basic_constraints, "critical,CA:FALSE");
    addExtension(server.get(), ca, NID_key_usage, "critical,digitalSignature");
    addExtension(server.get(), ca, NID_ext_key_usage, "serverAuth");
    addExtension(server.get(), ca, NID_subject_alt_name, joined(names).c_str());
    addExtension(server.get(), ca, NID_authority_key_identifier, "keyid:always");
    check(X509_sign(server.get(), caKey, EVP_sha256()) > 0, "signing the server certificate failed");
    writePem(files.keyFile, nullptr, serverKey.get());
    writePem(files.certFile, server.get(), nullptr);
}

ThrowawayCertificate filesIn(const std::filesystem::path& folder) {
    return {folder / "ca.pem", folder / "cert.pem", folder / "key.pem"};
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

std::optional<std::string> serverNameProblem(const std::string& name) {
    if (addressText(name) || hostName(name)) return std::nullopt;
    return "--name " + name + ": not a host name or an IP address";
}

std::optional<std::string> lanNameHint(const std::string& bindAddress, const ServerNames& names) {
    if (bindAddress == "127.0.0.1" || bindAddress == "::1" || !names.empty()) return std::nullopt;
    return "it names localhost only: --name adds this machine's LAN name or address";
}

std::optional<std::string> readServerNames(const std::string& commaSeparated, ServerNames& names) {
    std::size_t from = 0;
    while (from <= commaSeparated.size()) {
        const auto comma = std::min(commaSeparated.find(',', from), commaSeparated.size());
        auto name = commaSeparated.substr(from, comma - from);
        if (const auto problem = serverNameProblem(name)) return problem;
        names.push_back(std::move(name));
        from = comma + 1;
    }
    return std::nullopt;
}

ThrowawayCertificate makeThrowawayCertificate(const std::filesystem::path& folder, int days,
                                              const ServerNames& names) {
    const auto alternatives = alternativeNames(names);
    std::filesystem::create_directories(folder);
    const auto caKey = newKey();
    const auto ca = newCertificate(caKey.get(), "pelm-server throwaway authority", days);
    X509_set_issuer_name(ca.get(), X509_get_subject_name(ca.get()));
    addExtension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
    addExtension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    addExtension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
    check(X509_sign(ca.get(), caKey.get(), EVP_sha256()) > 0, "signing the authority failed");

    const auto files = filesIn(folder);
    // The authority's key stays, so that new names need a new server certificate only, not a new authority.
    writePem(folder / "ca-key.pem", nullptr, caKey.get());
    issueServerCertificate(files, ca.get(), caKey.get(), alternatives, days);
    writePem(files.caFile, ca.get(), nullptr);
    return files;
}

ThrowawayCertificate folderCertificate(const std::filesystem::path& folder, int days,
                                       const ServerNames& names) {
    const auto alternatives = alternativeNames(names);
    std::filesystem::create_directories(folder);
    FolderLock lock(folder);
    const auto files = filesIn(folder);
    const auto ca = readCertificate(files.caFile);
    auto reused = files;
    reused.madeAuthority = false;
    if (ca && validFor(ca.get(), kWeek)) {
        if (serverReusable(files, ca.get(), alternatives)) return reused;
        const auto caKey = readKey(folder / "ca-key.pem");
        if (caKey && X509_check_private_key(ca.get(), caKey.get()) == 1) {
            issueServerCertificate(files, ca.get(), caKey.get(), alternatives, days);
            return reused;
        }
    }
    return makeThrowawayCertificate(folder, days, names);
}

std::optional<std::string> certificateProblem(const std::filesystem::path& certFile,
                                              const std::filesystem::path& keyFile) {
    const auto cert = readCertificate(certFile);
    if (!cert) return "cannot read the certificate " + certFile.string() + " (not a PEM certificate)";
    const auto key = readKey(keyFile);
    if (!key) return "cannot read the key " + keyFile.string() + " (not a PEM private key, or protected)";
    if (X509_check_private_key(cert.get(), key.get()) != 1) {
        ERR_clear_error();
        return "the key " + keyFile.string() + " is not the key of the certificate " + certFile.string();
    }
    if (!validFor(cert.get(), 0))
        return "the certificate " + certFile.string() + " is not valid now (expired, or not valid yet)";
    return std::nullopt;
}

}  // namespace pelm::server
