#pragma once

#include <pelm/export.hpp>

#include <cstdint>
#include <optional>
#include <string>

#include <pelm/platform/beacon_region.hpp>

namespace pelm {

/// One nearby beacon device with its technical data, as the host app receives it. A value: copies are
/// independent.
/// \ingroup host_api
struct DiscoveredBeacon {
    /// The device's unique id, as its vendor tells it.
    std::string identifier;
    /// Its transmission power level, as it tells it.
    std::int64_t transmissionPower = 0;
    /// Empty when the device reports none.
    std::string firmwareVersion;
    /// Its battery level in percent, as it tells it; 0 when it tells none.
    std::uint64_t batteryLevel = 0;
    /// Received signal strength in dBm, as reported.
    int rssi = 0;

    /// None for a device without a unique identifier: the host app could not tell such devices apart.
    static std::optional<DiscoveredBeacon> fromKontaktBeacon(const platform::NearbyDevice& device) {
        if (!device.uniqueID) return std::nullopt;
        return DiscoveredBeacon{*device.uniqueID, device.transmissionPower.value_or(0),
                                device.firmwareVersion.value_or(""), device.batteryLevel.value_or(0),
                                device.rssi};
    }
};

}  // namespace pelm
