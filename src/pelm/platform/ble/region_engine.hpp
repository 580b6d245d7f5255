#pragma once

#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/main_queue.hpp>
#include <pelm/platform/region_monitor.hpp>

namespace pelm::platform {

/// One advertisement as a radio heard it.
struct HeardAdvertisement {
    /// The sender's address, standing for the device (the vendor's unique id when it tells one).
    std::string address;
    int rssi = 0;
    std::vector<std::uint8_t> data;
    /// What the device tells about itself in its other packets, for discovery.
    std::optional<std::string> uniqueID;
    std::optional<std::string> firmwareVersion;
    /// Only what a device really told; a recording or a radio that cannot say leaves them unknown.
    std::optional<std::uint64_t> batteryLevel;
    std::optional<std::int64_t> transmissionPower;
    /// When a recording says it was heard, and which of its receivers heard it ("" when it names none). A
    /// live radio leaves these alone: the engine hears everything at the main queue's now.
    Date at{};
    std::string receiver;
};

struct RegionEngineOptions {
    /// A region is left when none of its beacons was heard for this long.
    std::chrono::milliseconds exitTimeout{std::chrono::seconds(30)};
    /// Ranging reports this often, with the beacons heard in the last period.
    std::chrono::milliseconds rangingPeriod{std::chrono::seconds(1)};
    /// Discovery's own interval, when started without one.
    std::chrono::milliseconds defaultDiscoveryInterval{std::chrono::seconds(3)};
    /// The location authorisation the machine grants when asked.
    AuthorizationStatus authorization = 3;
};

/// Our stand-in for the phone's monitoring and ranging, fed by a stream of advertisements (a Bluetooth
/// source or a simulated store) on the main queue. Regions are kept by identifier; each monitored region is
/// unknown, inside or outside; a transition reports the state and the entry or exit, and a region whose
/// beacons are heard when its monitoring starts is entered once its state was told; a region is left after
/// `exitTimeout` without a matching advertisement; ranging reports every `rangingPeriod` the beacons heard in
/// that period, strongest first. It is also the device scanner, reporting the devices heard once per
/// interval.
class RegionEngine : public BeaconVendor, public std::enable_shared_from_this<RegionEngine> {
  public:
    RegionEngine(std::shared_ptr<MainQueue> mainQueue, RegionEngineOptions options = {});
    ~RegionEngine() override;

    /// One advertisement, heard now. Non-iBeacon data still counts for discovery.
    void hear(const HeardAdvertisement& advertisement) {
        hear(advertisement, parseIBeacon(advertisement.data));
    }
    /// The same, for a caller that parsed the advertisement's iBeacon frame (or found none) already.
    void hear(const HeardAdvertisement& advertisement, const std::optional<IBeaconFrame>& frame);

    void setAPIKey(const std::string& key) override { apiKey_ = key; }
    std::unique_ptr<RegionMonitor> makeRegionMonitor(std::weak_ptr<RegionMonitorDelegate> delegate) override;
    std::unique_ptr<DeviceScanner> makeDeviceScanner(std::weak_ptr<DeviceScannerDelegate> delegate) override;

    /// Advertisements heard and parsed as iBeacons so far.
    std::uint64_t beaconAdvertisements() const { return beaconAdvertisements_; }
    /// Devices held for discovery: those heard within its interval, whatever passed by before.
    std::size_t rememberedDevices() const { return devices_.size(); }

  private:
    class Monitor;
    class Scanner;
    // A beacon's identity, ordered as its text "UUID/major/minor" sorts, so that beacons of equal signal are
    // ranged in the order they always were. The UUID's bytes sort as its hexadecimal text does, and the
    // numbers are kept as the text they sort by ("major/minor", NUL-padded); both are held as big-endian
    // words, which compare as their bytes do.
    struct BeaconKey {
        explicit BeaconKey(const IBeaconFrame& frame);
        std::array<std::uint64_t, 4> words{};
        friend bool operator<(const BeaconKey& a, const BeaconKey& b) { return a.words < b.words; }
    };
    struct Heard {
        IBeaconFrame frame;
        Date at;
        int rssi;
    };
    struct Device {
        NearbyDevice told;
        Date at;
    };
    struct Watched {
        BeaconRegion region;
        RegionState state = RegionState::Unknown;
        Date lastHeard{};
        // Monitoring began inside the region: its entry is told after its state, when that is asked for,
        // or at the next tick.
        bool entryOwed = false;
    };

    void tick();
    void scheduleTick();
    bool needsTicks() const;
    /// When a beacon of the region was last heard, if it was in the engine's memory.
    std::optional<Date> lastHeard(const BeaconRegion& region) const;
    /// Inside or outside as monitoring knows it, or Inside when recently heard; Unknown otherwise.
    RegionState currentState(const BeaconRegion& region) const;
    void transition(Watched& watched, RegionState to);
    /// The entry owed to a region that monitoring found inside, if it is still owed.
    void payEntry(const BeaconRegion& region);
    void reportRanging(Date now);
    void reportDevices();

    std::shared_ptr<MainQueue> queue_;
    RegionEngineOptions options_;
    std::string apiKey_;
    Monitor* monitor_ = nullptr;
    Scanner* scanner_ = nullptr;
    std::map<std::string, Watched> monitored_;
    std::map<std::string, BeaconRegion> ranged_;
    // Latest advertisement per beacon identity (and sender), and per device for discovery.
    std::map<BeaconKey, Heard> beacons_;
    std::map<std::string, Device, std::less<>> devices_;
    std::optional<MainQueue::TimerId> tick_;
    std::optional<Date> tickPhase_;
    std::uint64_t beaconAdvertisements_ = 0;
};

}  // namespace pelm::platform
