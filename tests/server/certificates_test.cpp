// The server's throwaway authority: made once per folder, so devices keep trusting it across restarts.
#include "pelm_server/certificates.hpp"

#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

namespace pelm::server {
namespace {

std::string contents(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class FolderCertificate : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/pelm-certificates-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        folder_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(folder_); }
    std::filesystem::path folder_;
};

TEST_F(FolderCertificate, IsKeptAcrossRestartsAndRemadeOnlyWhenBrokenOrExpiring) {
    const auto first = folderCertificate(folder_);
    const auto authority = contents(first.caFile);
    ASSERT_THAT(authority, ::testing::HasSubstr("BEGIN CERTIFICATE"));
    EXPECT_EQ(contents(folderCertificate(folder_).caFile), authority) << "a restart made a new authority";
    EXPECT_EQ(std::filesystem::status(first.keyFile).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    // A server certificate from another authority does not belong: all is made again, and then agrees.
    const auto other = makeThrowawayCertificate(folder_ / "other");
    std::filesystem::copy_file(other.certFile, first.certFile,
                               std::filesystem::copy_options::overwrite_existing);
    const auto remade = folderCertificate(folder_);
    EXPECT_NE(contents(remade.caFile), authority);
    EXPECT_EQ(contents(folderCertificate(folder_).caFile), contents(remade.caFile));

    // One that expires within the week is replaced before devices start to refuse it.
    makeThrowawayCertificate(folder_, 3);
    const auto expiring = contents(first.caFile);
    EXPECT_NE(contents(folderCertificate(folder_).caFile), expiring);

    // A missing or garbled file is made again, not read.
    std::ofstream(first.keyFile) << "not a key";
    EXPECT_THAT(contents(folderCertificate(folder_).keyFile), ::testing::HasSubstr("PRIVATE KEY"));
}

}  // namespace
}  // namespace pelm::server
