#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pelm/platform/region_monitor.hpp>

namespace pelm::testing {

/// A beacon vendor for tests: records every call made on it, in order, as text ("startMonitoring PELM
/// Region F7826DA6-... [entry,exit,display]"), keeps the monitored and ranged regions by identifier as the
/// platform does, and lets the test deliver any callback to the current delegates.
/// \ingroup testing_kit
class ScriptedBeaconVendor : public platform::BeaconVendor {
  public:
    /// Every call made on the vendor, its monitors and scanners.
    std::vector<std::string> calls;
    /// Regions said to be left over from an earlier run, until stopMonitoringForAllRegions.
    std::map<std::string, platform::BeaconRegion> monitored;
    /// The regions being ranged, by identifier.
    std::map<std::string, platform::BeaconRegion> ranged;
    /// Whether a scanner is discovering nearby devices.
    bool discovering = false;

    /// A region as the calls name it: "IDENTIFIER UUID[ MAJOR[ MINOR]] [entry,exit,display]".
    static std::string describe(const platform::BeaconRegion& region);
    /// The calls made since the last take, in order.
    std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

    void setAPIKey(const std::string& key) override { calls.push_back("setAPIKey " + key); }
    /// A monitor whose calls are recorded; its callbacks go to `delegate` while it lives.
    std::unique_ptr<platform::RegionMonitor> makeRegionMonitor(
        std::weak_ptr<platform::RegionMonitorDelegate> delegate) override;
    /// A scanner whose calls are recorded; its callbacks go to `delegate` while it lives.
    std::unique_ptr<platform::DeviceScanner> makeDeviceScanner(
        std::weak_ptr<platform::DeviceScannerDelegate> delegate) override;

    /// Tells the monitor's delegate a location authorisation, at once, if the delegate is still there; the
    /// callbacks below are delivered the same way.
    void authorize(platform::AuthorizationStatus status);
    /// Tells a region's state.
    void determine(platform::RegionState state, const platform::BeaconRegion& region);
    /// Tells an entry into `region`.
    void enter(const platform::BeaconRegion& region);
    /// Tells an exit from `region`.
    void exit(const platform::BeaconRegion& region);
    /// Tells one ranging round of `region`.
    void range(const std::vector<platform::RangedBeacon>& beacons, const platform::BeaconRegion& region);
    /// Tells the scanner's delegate the nearby devices (none: discovery found nothing to report).
    void discover(const std::optional<std::vector<platform::NearbyDevice>>& devices);
    /// Tells the scanner's delegate that discovery could not start.
    void failDiscovery(const std::optional<std::string>& error);

    /// Whether any monitor or scanner made by this vendor is still alive.
    bool hasLiveMonitor() const { return !monitorDelegate_.expired(); }

  private:
    class Monitor;
    class Scanner;
    std::weak_ptr<platform::RegionMonitorDelegate> monitorDelegate_;
    std::weak_ptr<platform::DeviceScannerDelegate> scannerDelegate_;
};

}  // namespace pelm::testing
