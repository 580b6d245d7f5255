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
struct PELM_EXPORT BeaconRegion {
    ProximityUUID proximityUUID;
    std::optional<std::uint16_t> major;
    std::optional<std::uint16_t> minor;
    std::string identifier;
    bool notifyOnEntry = false;
    bool notifyOnExit = false;
    bool notifyEntryStateOnDisplay = false;

    /// Whether a beacon with this identity belongs to the region.
    bool contains(const ProximityUUID& uuid, std::uint16_t beaconMajor, std::uint16_t beaconMinor) const {
        return uuid == proximityUUID && (!major || *major == beaconMajor) &&
               (!minor || *minor == beaconMinor);
    }
    friend bool operator==(const BeaconRegion&, const BeaconRegion&) = default;
};

/// Whether the device is inside a region, as the platform numbers it.
enum class RegionState { Unknown = 0, Inside = 1, Outside = 2 };

/// One beacon heard during ranging.
struct PELM_EXPORT RangedBeacon {
    ProximityUUID proximityUUID;
    std::uint16_t major = 0;
    std::uint16_t minor = 0;
    /// Received signal strength in dBm.
    int rssi = 0;
    /// Estimated distance in metres; negative when unknown.
    double accuracy = -1;
};

/// One beacon device found by discovery, with what it tells about itself.
struct PELM_EXPORT NearbyDevice {
    std::optional<std::string> uniqueID;
    std::int64_t transmissionPower = 0;
    std::optional<std::string> firmwareVersion;
    std::uint64_t batteryLevel = 0;
    int rssi = 0;
};

}  // namespace pelm::platform
