#include <pelm/platform/ble/ibeacon_advertisement.hpp>

#include <algorithm>

namespace pelm::platform {
namespace {

constexpr std::uint8_t kManufacturerSpecific = 0xFF;
constexpr std::uint8_t kAppleLow = 0x4C, kAppleHigh = 0x00;  // company identifiers are little-endian
constexpr std::uint8_t kIBeaconType = 0x02, kIBeaconLength = 0x15;

std::optional<IBeaconFrame> readManufacturerData(std::span<const std::uint8_t> data) {
    // company (2), type (1), length (1), UUID (16), major (2), minor (2), power (1)
    if (data.size() < 25 || data[0] != kAppleLow || data[1] != kAppleHigh || data[2] != kIBeaconType ||
        data[3] != kIBeaconLength) {
        return std::nullopt;
    }
    IBeaconFrame frame;
    std::copy_n(data.begin() + 4, 16, frame.proximityUUID.bytes.begin());
    frame.major = static_cast<std::uint16_t>(data[20] << 8 | data[21]);
    frame.minor = static_cast<std::uint16_t>(data[22] << 8 | data[23]);
    frame.measuredPower = static_cast<std::int8_t>(data[24]);
    return frame;
}

}  // namespace

std::optional<IBeaconFrame> parseIBeacon(std::span<const std::uint8_t> advertisingData) {
    std::size_t at = 0;
    while (at < advertisingData.size()) {
        const std::size_t length = advertisingData[at];
        if (length == 0) break;                                             // the rest is padding
        if (at + 1 + length > advertisingData.size()) return std::nullopt;  // truncated structure
        const auto type = advertisingData[at + 1];
        if (type == kManufacturerSpecific) {
            if (auto frame = readManufacturerData(advertisingData.subspan(at + 2, length - 1))) return frame;
        }
        at += 1 + length;
    }
    return std::nullopt;
}

}  // namespace pelm::platform
