// The server's throwaway authority: made once per folder, so devices keep trusting it across restarts.
#include "pelm_server/certificates.hpp"

#include <gmock/gmock.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <fstream>
#include <sstream>

#include "support/temp_folder.hpp"

namespace pelm::server {
namespace {

std::string contents(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Whether a TLS client reaching the server under `name` would find it in the certificate.
bool certifies(const std::filesystem::path& certFile, const std::string& name) {
    std::FILE* file = std::fopen(certFile.c_str(), "r");
    if (file == nullptr) return false;
    X509* cert = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    const bool named = cert != nullptr && (X509_check_host(cert, name.data(), name.size(), 0, nullptr) == 1 ||
                                           X509_check_ip_asc(cert, name.c_str(), 0) == 1);
    X509_free(cert);
    return named;
}

// The serial, as a hex text.
std::string serialOf(const std::filesystem::path& certFile) {
    std::FILE* file = std::fopen(certFile.c_str(), "r");
    if (file == nullptr) return "";
    X509* cert = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    BIGNUM* number = ASN1_INTEGER_to_BN(X509_get_serialNumber(cert), nullptr);
    char* hex = BN_bn2hex(number);
    std::string text = hex;
    OPENSSL_free(hex);
    BN_free(number);
    X509_free(cert);
    return text;
}

class FolderCertificate : public ::testing::Test {
  protected:
    testing::TempFolder temp_{"pelm-certificates"};
    const std::filesystem::path& folder_ = temp_.path();
};

TEST_F(FolderCertificate, IsKeptAcrossRestartsAndRemadeOnlyWhenBrokenOrExpiring) {
    const auto first = folderCertificate(folder_);
    EXPECT_TRUE(first.madeAuthority);
    const auto authority = contents(first.caFile);
    ASSERT_THAT(authority, ::testing::HasSubstr("BEGIN CERTIFICATE"));
    const auto again = folderCertificate(folder_);
    EXPECT_EQ(contents(again.caFile), authority) << "a restart made a new authority";
    EXPECT_FALSE(again.madeAuthority) << "a restart says it made the authority it reused";
    EXPECT_EQ(std::filesystem::status(first.keyFile).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    // A server certificate from another authority does not belong: the authority signs a new one.
    const auto other = makeThrowawayCertificate(folder_ / "other");
    std::filesystem::copy_file(other.certFile, first.certFile,
                               std::filesystem::copy_options::overwrite_existing);
    const auto remade = folderCertificate(folder_);
    EXPECT_EQ(contents(remade.caFile), authority);
    EXPECT_NE(contents(remade.certFile), contents(other.certFile));

    // Without the authority's key nothing can be signed: all is made again, and then agrees.
    std::filesystem::remove(folder_ / "ca-key.pem");
    std::filesystem::copy_file(other.certFile, first.certFile,
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_NE(contents(folderCertificate(folder_).caFile), authority);
    EXPECT_EQ(contents(folderCertificate(folder_).caFile), contents(first.caFile));

    // One that expires within the week is replaced before devices start to refuse it.
    makeThrowawayCertificate(folder_, 3);
    const auto expiring = contents(first.caFile);
    EXPECT_NE(contents(folderCertificate(folder_).caFile), expiring);

    // Serials are 16 random bytes (the first one's top bit clear, so the number is positive): no two alike.
    for (const auto& serial : {serialOf(first.caFile), serialOf(first.certFile), serialOf(other.certFile)})
        EXPECT_EQ(serial.size(), 32u) << serial;
    EXPECT_NE(serialOf(first.caFile), serialOf(other.caFile));

    // A missing or garbled file is made again, not read.
    std::ofstream(first.keyFile) << "not a key";
    EXPECT_THAT(contents(folderCertificate(folder_).keyFile), ::testing::HasSubstr("PRIVATE KEY"));
}

TEST_F(FolderCertificate, LanNamesGetAServerCertificateOfTheSameAuthorityWhenTheyChange) {
    const auto first = folderCertificate(folder_);
    const auto authority = contents(first.caFile);
    EXPECT_TRUE(certifies(first.certFile, "localhost"));
    EXPECT_TRUE(certifies(first.certFile, "::1"));
    EXPECT_FALSE(certifies(first.certFile, "shop.lan"));

    const auto named = folderCertificate(folder_, 365, {"Shop.LAN", "192.168.1.20", "fe80::1"});
    EXPECT_EQ(contents(named.caFile), authority) << "devices would have to trust a new authority";
    for (const char* name : {"shop.lan", "192.168.1.20", "fe80::1", "localhost", "127.0.0.1"})
        EXPECT_TRUE(certifies(named.certFile, name)) << name;
    EXPECT_FALSE(certifies(named.certFile, "192.168.1.21"));

    // The same names in another order and spelling are no change.
    const auto cert = contents(named.certFile);
    EXPECT_EQ(contents(folderCertificate(folder_, 365, {"fe80:0::1", "shop.lan", "192.168.1.20"}).certFile),
              cert);
    // Names dropped are dropped from the certificate too.
    EXPECT_FALSE(certifies(folderCertificate(folder_).certFile, "shop.lan"));

    EXPECT_THROW(folderCertificate(folder_, 365, {"shop lan"}), std::runtime_error);
    EXPECT_TRUE(certifies(first.certFile, "localhost")) << "a refused name left the folder broken";
    ServerNames names;
    EXPECT_EQ(readServerNames("a.lan,-b.lan", names), "--name -b.lan: not a host name or an IP address");
    EXPECT_EQ(readServerNames("a.lan,", names), "--name : not a host name or an IP address");
    EXPECT_EQ(readServerNames("host-1.lan,10.0.0.7", names), std::nullopt);
}

}  // namespace
}  // namespace pelm::server
