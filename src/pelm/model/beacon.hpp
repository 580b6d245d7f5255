#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <pelm/platform/proximity_uuid.hpp>

namespace pelm {

/// A beacon's identity: proximity UUID in canonical 36-character form, major and minor as decimal text.
/// Shared by reference (std::shared_ptr<Beacon>); two beacons are compared by their texts, never by address.
struct Beacon {
    /// The proximity UUID, as text.
    std::optional<std::string> uuid;
    /// The major number, as decimal text.
    std::optional<std::string> major;
    /// The minor number, as decimal text.
    std::optional<std::string> minor;

    Beacon() = default;
    /// Keeps the three texts exactly as given.
    Beacon(std::string uuid, std::string major, std::string minor)
        : uuid(std::move(uuid)), major(std::move(major)), minor(std::move(minor)) {}
    /// From what the radio reports: upper-case UUID text, decimal major and minor.
    Beacon(const platform::ProximityUUID& proximityUUID, std::uint16_t major, std::uint16_t minor)
        : uuid(proximityUUID.uuidString()), major(std::to_string(major)), minor(std::to_string(minor)) {}
};

}  // namespace pelm
