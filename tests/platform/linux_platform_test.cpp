// The Linux platform refuses, at once and by name, a CA file that every call would later fail on.
#include <pelm/platform/linux/linux_platform.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace pelm::platform {
namespace {

std::string refusal(const std::filesystem::path& ca) {
    LinuxPlatformOptions options;
    options.appName = "ca-check";
    options.configDirectory = std::filesystem::temp_directory_path();
    options.beaconSource = BeaconSource::none();
    options.extraCABundle = ca;
    try {
        makeLinuxPlatform(options);
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

TEST(LinuxPlatform, ACAFileThatCannotServeIsRefusedByName) {
    const auto folder = std::filesystem::temp_directory_path() / "pelm-ca-check";
    std::filesystem::create_directories(folder);
    const auto notPem = folder / "hostname";
    std::ofstream(notPem) << "shop-laptop\n";
    const auto pem = folder / "ca.pem";
    std::ofstream(pem) << "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n";

    EXPECT_EQ(refusal(folder / "missing.pem"), "the CA file " + (folder / "missing.pem").string() + " does not exist");
    EXPECT_EQ(refusal(notPem), "the CA file " + notPem.string() + " holds no PEM certificate");
    EXPECT_EQ(refusal(folder), "the CA file " + folder.string() + " cannot be read: Is a directory");
    EXPECT_EQ(refusal(pem), "");
    std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace pelm::platform
