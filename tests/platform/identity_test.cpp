#include <pelm/model/beacon.hpp>
#include <pelm/platform/linux/machine_identity.hpp>
#include <pelm/platform/proximity_uuid.hpp>

#include <gtest/gtest.h>

#include <fstream>

namespace pelm::platform {
namespace {

TEST(MachineIdentity, NameBasedUuidMatchesTheStandardConstruction) {
    // RFC 4122 DNS namespace and "python.org", a widely published version 5 example.
    constexpr unsigned char dns[16] = {0x6b, 0xa7, 0xb8, 0x10, 0x9d, 0xad, 0x11, 0xd1,
                                       0x80, 0xb4, 0x00, 0xc0, 0x4f, 0xd4, 0x30, 0xc8};
    EXPECT_EQ(nameBasedUuid(dns, "python.org"), "886313E1-3B8A-5372-9B90-0C9AEE199E5D");
}

TEST(MachineIdentity, StablePerVendorAndAbsentWithoutAMachineId) {
    const auto file = std::filesystem::temp_directory_path() / "pelm-machine-id-test";
    std::ofstream(file) << "0123456789abcdef0123456789abcdef\n";
    const MachineIdentity shopOnFile("shop", "", "", file), otherOnFile("other", "", "", file);
    EXPECT_EQ(shopOnFile.vendorIdentifier(), MachineIdentity("shop", "9", "9", file).vendorIdentifier());
    EXPECT_NE(shopOnFile.vendorIdentifier(), otherOnFile.vendorIdentifier());
    ASSERT_TRUE(shopOnFile.vendorIdentifier());
    EXPECT_TRUE(ProximityUUID::parse(*shopOnFile.vendorIdentifier()));
    EXPECT_EQ(MachineIdentity("shop", "", "", "/nonexistent/machine-id").vendorIdentifier(), std::nullopt);
    std::filesystem::remove(file);
}

TEST(ProximityUUID, ParsesCanonicalTextInEitherCaseAndRendersUpperCase) {
    const auto uuid = ProximityUUID::parse("f7826da6-4fa2-4e98-8024-bc5b71e0893e");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->uuidString(), "F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
    EXPECT_EQ(ProximityUUID::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E"), uuid);
    for (const char* bad : {"", "f7826da6-4fa2-4e98-8024-bc5b71e0893", "f7826da64fa24e988024bc5b71e0893e",
                            "f7826da6-4fa2-4e98-8024-bc5b71e0893g", "f7826da6+4fa2-4e98-8024-bc5b71e0893e",
                            " f7826da6-4fa2-4e98-8024-bc5b71e0893e"}) {
        EXPECT_FALSE(ProximityUUID::parse(bad)) << bad;
    }
}

TEST(ProximityUUID, BeaconFromTheRadioHasUpperCaseUuidAndPlainDecimals) {
    const Beacon beacon(*ProximityUUID::parse("f7826da6-4fa2-4e98-8024-bc5b71e0893e"), 0, 65535);
    EXPECT_EQ(beacon.uuid, "F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
    EXPECT_EQ(beacon.major, "0");
    EXPECT_EQ(beacon.minor, "65535");
}

}  // namespace
}  // namespace pelm::platform
