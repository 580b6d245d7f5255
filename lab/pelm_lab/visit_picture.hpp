#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pelm_lab/visit_harness.hpp"

namespace pelm::lab {

/// A beacon as the app's regions name it.
struct BeaconKey {
    std::string uuid;
    int major = 0, minor = 0;
    auto operator<=>(const BeaconKey&) const = default;
    /// "1/20"
    std::string label() const;
};

/// Something the host app was told about a beacon, drawn as a mark on the beacon's row. Times are seconds
/// since the start of the run.
struct BeaconMark {
    enum class Kind { Entry, Exit, EntryContent, ExitContent, HeldBack };
    Kind kind;
    double at = 0;
    /// The content's name, or what was held back until when.
    std::string text;
};

struct SignalPoint {
    double at = 0;
    double rssi = 0;
};

struct BeaconRow {
    BeaconKey key;
    /// The devices heard sending it (unique id, or address).
    std::set<std::string> devices;
    /// When the radio heard it, as [from, to) intervals; short gaps are bridged.
    std::vector<std::pair<double, double>> heard;
    /// Its mean signal in dBm, thinned to a bounded number of points; a long silence splits the line.
    std::vector<std::vector<SignalPoint>> signal;
    std::vector<BeaconMark> marks;
};

/// A nearby device as discovery last reported it, with the range of signal seen.
struct DeviceRow {
    std::string id;
    std::uint64_t battery = 0;
    std::string firmware;
    std::int64_t transmissionPower = 0;
    int weakest = 0, strongest = 0;
    double firstSeen = 0, lastSeen = 0;
    /// Below this a battery wants changing soon.
    static constexpr std::uint64_t kLowBattery = 20;
    bool lowBattery() const { return battery < kLowBattery; }
};

struct HandedContent {
    double at = 0;
    std::string name;
    /// "entry" or "exit" ("" when the server said neither).
    std::string displayType;
    /// The beacon whose entry or exit it answered, when one came before it.
    std::optional<BeaconKey> beacon;
};

/// A whole run read back from its events: what the host app was told, and what the radio heard.
struct VisitPicture {
    double seconds = 0;
    /// The app's proximity UUID, as monitoring started for it.
    std::optional<std::string> appUuid;
    /// When the store's region was first entered and last left.
    std::optional<double> visitStart, visitEnd;
    /// The beacons of the app's UUID (of any when monitoring never started), by major and minor.
    std::vector<BeaconRow> beacons;
    /// iBeacons of other UUIDs that the radio heard.
    std::size_t otherBeacons = 0;
    std::vector<DeviceRow> devices;
    std::vector<HandedContent> contents;
    std::size_t heldBack = 0;
    enum class Upload { None, Succeeded, Failed } upload = Upload::None;

    /// Beacons whose region the host app was told it had entered.
    std::size_t beaconsMet() const;
    const DeviceRow* device(const std::string& id) const;
};

/// At most this many signal points a beacon, whatever the length of the run.
inline constexpr int kSignalPoints = 400;

VisitPicture pictureOf(const std::vector<TimelineEvent>& events, std::chrono::milliseconds length);

}  // namespace pelm::lab
