#include <pelm/platform/ble/ibeacon_advertisement.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pelm::platform {
namespace {

std::vector<std::uint8_t> bytes(std::string hex) {
    std::vector<std::uint8_t> out;
    std::string digits;
    for (char c : hex) {
        if (c != ' ') digits += c;
    }
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

TEST(IBeaconAdvertisement, ReadsCapturesPublishedWithBeaconTooling) {
    // A beacon configured with major 16, minor 32 and measured power -58, dual-mode flags.
    auto frame = parseIBeacon(
        bytes("02 01 1A 1A FF 4C 00 02 15 83 25 6B 74 78 D0 43 A4 82 69 05 F9 DC 8A 44 BA 00 10 00 20 C6"));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->proximityUUID.uuidString(), "83256B74-78D0-43A4-8269-05F9DC8A44BA");
    EXPECT_EQ(frame->major, 16);
    EXPECT_EQ(frame->minor, 32);
    EXPECT_EQ(frame->measuredPower, -58);
    // The advertising data an HCI LE Set Advertising Data command carries, with its zero padding.
    frame = parseIBeacon(bytes(
        "02 01 1a 1a ff 4c 00 02 15 e2 c5 6d b5 df fb 48 d2 b0 60 d0 f5 a7 10 96 e0 00 00 00 00 c5 00"));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->proximityUUID.uuidString(), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
    EXPECT_EQ(frame->major, 0);
    EXPECT_EQ(frame->measuredPower, -59);
}

TEST(IBeaconAdvertisement, WalksStructuresWithoutFixedOffsets) {
    const std::string body =
        "1A FF 4C 00 02 15 F7 82 6D A6 4F A2 4E 98 80 24 BC 5B 71 E0 89 3E FF FF 01 02 B3";
    auto frame = parseIBeacon(bytes(body));  // no Flags structure
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->major, 65535);
    EXPECT_EQ(frame->minor, 258);
    EXPECT_EQ(frame->measuredPower, -77);
    // A name and another vendor's data before it.
    EXPECT_TRUE(parseIBeacon(bytes("02 01 06 05 09 50 45 4C 4D 04 FF 59 00 01 " + body)));
}

TEST(IBeaconAdvertisement, AnythingElseIsNotAnIBeacon) {
    const std::string flags = "02 01 06 ";
    const std::string rest = "F7 82 6D A6 4F A2 4E 98 80 24 BC 5B 71 E0 89 3E 00 01 00 02 C5";
    for (const std::string& data :
         {flags + "1A FF 59 00 02 15 " + rest,      // another company
          flags + "1A FF 4C 00 03 15 " + rest,      // another type
          flags + "1A FF 4C 00 02 16 " + rest,      // another length
          flags + "1A FF 4C 00 02 15 F7 82 6D A6",  // truncated structure
          flags + "10 FF 4C 00 02 15 " + rest,      // structure shorter than a frame
          flags + "1A 16 4C 00 02 15 " + rest,      // service data, not manufacturer data
          std::string("FF"), std::string(""), std::string("00 1A FF 4C 00 02 15 ") + rest}) {
        EXPECT_FALSE(parseIBeacon(bytes(data))) << data;
    }
}

}  // namespace
}  // namespace pelm::platform
