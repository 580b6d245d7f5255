#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include <pelm/platform/proximity_uuid.hpp>

namespace pelm::platform {

/// What an iBeacon advertises.
struct IBeaconFrame {
    ProximityUUID proximityUUID;
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    /// Signal strength at one metre, in dBm.
    std::int8_t measuredPower = 0;
};

/// Finds the iBeacon frame in advertising data: the length-type-value structures are walked in order (a
/// Flags structure may or may not come first) and the first manufacturer-specific structure of company 0x004C
/// with type 0x02 and length 0x15 is read. Anything else, truncated data included, is not an iBeacon.
std::optional<IBeaconFrame> parseIBeacon(std::span<const std::uint8_t> advertisingData);

}  // namespace pelm::platform
