#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <pelm/platform/region_monitor.hpp>

namespace pelm::platform {

/// A beacon vendor for tests: records every call made on it, in order, as text ("startMonitoring PELM
/// Region F7826DA6-... [entry,exit,display]"), keeps the monitored and ranged regions by identifier as the
/// platform does, and lets the test deliver any callback to the current delegates.
class ScriptedBeaconVendor : public BeaconVendor {
  public:
    /// Every call made on the vendor, its monitors and scanners.
    std::vector<std::string> calls;
    /// Regions said to be left over from an earlier run, until stopMonitoringForAllRegions.
    std::map<std::string, BeaconRegion> monitored;
    std::map<std::string, BeaconRegion> ranged;
    bool discovering = false;

    static std::string describe(const BeaconRegion& region);
    std::vector<std::string> takeCalls() { return std::exchange(calls, {}); }

    void setAPIKey(const std::string& key) override { calls.push_back("setAPIKey " + key); }
    std::unique_ptr<RegionMonitor> makeRegionMonitor(std::weak_ptr<RegionMonitorDelegate> delegate) override;
    std::unique_ptr<DeviceScanner> makeDeviceScanner(std::weak_ptr<DeviceScannerDelegate> delegate) override;

    // Callbacks, delivered at once when the delegate is still there.
    void authorize(AuthorizationStatus status);
    void determine(RegionState state, const BeaconRegion& region);
    void enter(const BeaconRegion& region);
    void exit(const BeaconRegion& region);
    void range(const std::vector<RangedBeacon>& beacons, const BeaconRegion& region);
    void discover(const std::optional<std::vector<NearbyDevice>>& devices);
    void failDiscovery(const std::optional<std::string>& error);

    /// Whether any monitor or scanner made by this vendor is still alive.
    bool hasLiveMonitor() const { return !monitorDelegate_.expired(); }

  private:
    class Monitor;
    class Scanner;
    std::weak_ptr<RegionMonitorDelegate> monitorDelegate_;
    std::weak_ptr<DeviceScannerDelegate> scannerDelegate_;
};

}  // namespace pelm::platform
