#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
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
    /// The devices heard sending it (unique id, or address), the first kDevicesNamed of them.
    std::set<std::string> devices;
    /// More devices than `devices` names sent it.
    bool moreDevices = false;
    /// When the radio heard it, as [from, to) intervals; short gaps are bridged.
    std::vector<std::pair<double, double>> heard;
    /// Its mean signal in dBm, thinned to a bounded number of points; a long silence splits the line.
    std::vector<std::vector<SignalPoint>> signal;
    std::vector<BeaconMark> marks;
};

/// A nearby device as discovery last reported it, with the range of signal seen.
struct DeviceRow {
    std::string id;
    /// As the device last told them; none when it told none.
    std::optional<std::uint64_t> battery;
    std::optional<std::string> firmware;
    std::optional<std::int64_t> transmissionPower;
    int weakest = 0, strongest = 0;
    double firstSeen = 0, lastSeen = 0;
    /// Below this a battery wants changing soon.
    static constexpr std::uint64_t kLowBattery = 20;
    /// Only a battery that told its level can be low.
    bool lowBattery() const { return battery && *battery < kLowBattery; }
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
    /// The beacons of the app's UUID (of any when monitoring never started), by major and minor: the first
    /// kMostBeaconRows heard.
    std::vector<BeaconRow> beacons;
    /// Beacons of the app heard beyond those rows.
    std::size_t beaconsNotDrawn = 0;
    /// iBeacons of other UUIDs that the radio heard (counted up to kMostCounted).
    std::size_t otherBeacons = 0;
    /// The first kMostDeviceRows devices discovery reported.
    std::vector<DeviceRow> devices;
    /// Devices discovery reported beyond those rows (counted up to kMostCounted).
    std::size_t devicesNotShown = 0;
    std::vector<HandedContent> contents;
    std::size_t heldBack = 0;
    enum class Upload { None, Succeeded, Failed } upload = Upload::None;

    /// Beacons whose region the host app was told it had entered.
    std::size_t beaconsMet() const;
    const DeviceRow* device(const std::string& id) const;
};

/// At most this many signal points a beacon, whatever the length of the run: each point is the mean of an
/// equal share of the run (a second in runs up to 400 s, 3.6 minutes in a day).
inline constexpr int kSignalPoints = 400;
/// The picture's bounds, which keep a day's run, a million passing phones or a million beacons in a few
/// megabytes: rows drawn, device names a row, discovered devices listed, and things counted one by one
/// (beacons not drawn, other apps' beacons, devices not listed).
inline constexpr std::size_t kMostBeaconRows = 256;
inline constexpr std::size_t kDevicesNamed = 32;
inline constexpr std::size_t kMostDeviceRows = 256;
inline constexpr std::size_t kMostCounted = 10'000;

/// Counts distinct things by a 64-bit hash of each, up to kMostCounted (a count that reached it is "or
/// more").
class DistinctCount {
  public:
    void add(std::uint64_t hash) {
        if (seen_.size() < kMostCounted) seen_.insert(hash);
    }
    std::size_t count() const { return seen_.size(); }

  private:
    std::unordered_set<std::uint64_t> seen_;
};

/// One beacon's signal, kept at a resolution that doubles whenever it would need more than twice the
/// points a picture draws, so that it takes the same memory for a minute as for a day.
class SignalTrack {
  public:
    /// The mean signal of the second centred at `at`.
    void add(double at, double rssi);
    /// Thinned to kSignalPoints over `seconds`; a long silence splits the line.
    std::vector<std::vector<SignalPoint>> line(double seconds) const;
    /// When it was heard, short gaps bridged.
    std::vector<std::pair<double, double>> heard(double seconds) const;

  private:
    struct Bucket {
        long long index = 0;
        double sumAt = 0, sumRssi = 0;
        int seconds = 0;
    };
    void coarsen();

    double resolution_ = 1;
    std::vector<Bucket> buckets_;
    double bridge_ = 2;
    std::vector<std::pair<double, double>> heard_;
};

/// Draws the picture as the events come, in memory that does not grow with the run's length.
class PictureBuilder {
  public:
    void add(const TimelineEvent& event);
    /// The run so far, at least `length` long.
    VisitPicture picture(std::chrono::milliseconds length) const;

  private:
    struct Samples {
        std::set<std::string> devices;
        bool moreDevices = false;
        SignalTrack signal;
        // The second being summed up (several devices of one identity are averaged).
        double pendingAt = -1, pendingSum = 0;
        int pendingCount = 0;
        std::vector<BeaconMark> marks;
        void flush();
    };

    void visit(const events::MainRegionEntered& entered, double at);
    void visit(const events::MainRegionLeft& left, double at);
    void visit(const events::SubRegionEntered& entered, double at);
    void visit(const events::SubRegionLeft& left, double at);
    void visit(const events::ContentHandedOn& content, double at);
    void visit(const events::ContentHeldBack& heldBack, double at);
    void visit(const events::VisitUploaded& upload, double at);
    void visit(const events::NearbyDevices& nearby, double at);
    // Ranging, Bluetooth, location and reachability change nothing in the picture.
    template <class Other>
    void visit(const Other&, double) {}
    Samples* row(const BeaconKey& key);
    void mark(const BeaconKey& key, BeaconMark::Kind kind, double at, std::string text = {});
    void discovered(const DiscoveredBeacon& device, const events::UntoldValues& untold, double at);
    void heard(const HeardSignal& signal, double at);

    VisitPicture picture_;
    double latest_ = 0;
    std::map<BeaconKey, Samples> beacons_;
    DistinctCount notDrawn_, others_, devicesNotShown_;
    std::map<std::string, DeviceRow> devices_;
    // The latest entry, which the platform may report twice (found inside, then entered).
    std::optional<std::pair<BeaconKey, double>> lastEntry_;
};

VisitPicture pictureOf(const std::vector<TimelineEvent>& events, std::chrono::milliseconds length);

}  // namespace pelm::lab
