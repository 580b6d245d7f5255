#pragma once

#include <pelm/export.hpp>

#include <cstdint>
#include <optional>
#include <string>

#include <pelm/platform/proximity_uuid.hpp>

namespace pelm::platform {

/// A set of beacons to watch: every beacon with the UUID, or with UUID and major, or one beacon (UUID, major
/// and minor). Regions are known by their identifier: watching a region whose identifier is already watched
/// replaces the earlier one.
struct BeaconRegion {
    /// The UUID every beacon of the region has.
    ProximityUUID proximityUUID;
    /// The major every beacon of the region has; none for any.
    std::optional<std::uint16_t> major;
    /// The minor every beacon of the region has; none for any.
    std::optional<std::uint16_t> minor;
    /// The region's name; watching another region of the same name replaces it.
    std::string identifier;
    /// Report entering the region.
    bool notifyOnEntry = false;
    /// Report leaving the region.
    bool notifyOnExit = false;
    /// Report the state when the display comes on.
    bool notifyEntryStateOnDisplay = false;

    /// Whether a beacon with this identity belongs to the region.
    bool contains(const ProximityUUID& uuid, std::uint16_t beaconMajor, std::uint16_t beaconMinor) const {
        return uuid == proximityUUID && (!major || *major == beaconMajor) &&
               (!minor || *minor == beaconMinor);
    }
    /// Equal when every field is.
    friend bool operator==(const BeaconRegion&, const BeaconRegion&) = default;
};

/// Whether the device is inside a region, as the platform numbers it.
enum class RegionState { Unknown = 0, Inside = 1, Outside = 2 };

/// One beacon heard during ranging.
struct RangedBeacon {
    /// The beacon's proximity UUID.
    ProximityUUID proximityUUID;
    /// The beacon's major.
    std::uint16_t major = 0;
    /// The beacon's minor.
    std::uint16_t minor = 0;
    /// Received signal strength in dBm.
    int rssi = 0;
    /// Estimated distance in metres; negative when unknown.
    double accuracy = -1;
};

/// One beacon device found by discovery, with what it tells about itself.
struct NearbyDevice {
    /// The device's unique id, or its address where it tells none.
    std::optional<std::string> uniqueID;
    /// Its transmission power level, when it tells one.
    std::optional<std::int64_t> transmissionPower;
    /// Its firmware version, when it tells one.
    std::optional<std::string> firmwareVersion;
    /// Its battery level in percent, when it tells one.
    std::optional<std::uint64_t> batteryLevel;
    /// Received signal strength in dBm.
    int rssi = 0;
};

}  // namespace pelm::platform
