#pragma once

#include <pelm/export.hpp>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pelm/platform/beacon_region.hpp>

namespace pelm::platform {

/// Location authorisation as the platform numbers it: 0 not determined, 1 restricted, 2 denied,
/// 3 authorised always, 4 authorised when in use.
using AuthorizationStatus = int;

/// What a region monitor reports, on the main queue.
class PELM_EXPORT RegionMonitorDelegate {
  public:
    virtual ~RegionMonitorDelegate() = default;
    /// The location authorisation changed.
    virtual void didChangeLocationAuthorizationStatus(AuthorizationStatus status) = 0;
    /// The state of `region` is known, after a transition or when asked.
    virtual void didDetermineState(RegionState state, const BeaconRegion& region) = 0;
    /// `region` was entered.
    virtual void didEnterRegion(const BeaconRegion& region) = 0;
    /// `region` was left.
    virtual void didExitRegion(const BeaconRegion& region) = 0;
    /// The beacons of `region` heard in the last ranging period, strongest first.
    virtual void didRangeBeacons(const std::vector<RangedBeacon>& beacons, const BeaconRegion& region) = 0;
};

/// Watches regions (entry, exit, state) and ranges the beacons inside them. Destroying it ends its callbacks.
class PELM_EXPORT RegionMonitor {
  public:
    virtual ~RegionMonitor() = default;
    /// The answer arrives later through didChangeLocationAuthorizationStatus.
    virtual void requestLocationAlwaysAuthorization() = 0;
    /// The regions monitored now.
    virtual std::vector<BeaconRegion> monitoredRegions() const = 0;
    /// The regions ranged now.
    virtual std::vector<BeaconRegion> rangedRegions() const = 0;
    /// Stops monitoring every region.
    virtual void stopMonitoringForAllRegions() = 0;
    /// Stops ranging every region.
    virtual void stopRangingBeaconsInAllRegions() = 0;
    /// Starts monitoring `region`, replacing one of the same identifier.
    virtual void startMonitoring(const BeaconRegion& region) = 0;
    /// Stops monitoring `region`.
    virtual void stopMonitoring(const BeaconRegion& region) = 0;
    /// Answered later through didDetermineState.
    virtual void requestState(const BeaconRegion& region) = 0;
    /// Starts ranging `region`.
    virtual void startRanging(const BeaconRegion& region) = 0;
    /// Stops ranging `region`.
    virtual void stopRanging(const BeaconRegion& region) = 0;
};

/// What a device scanner reports, on the main queue.
class PELM_EXPORT DeviceScannerDelegate {
  public:
    virtual ~DeviceScannerDelegate() = default;
    /// The beacon devices heard in the last interval.
    virtual void didDiscoverDevices(const std::optional<std::vector<NearbyDevice>>& devices) = 0;
    /// Discovery could not start.
    virtual void didFailToStartDiscovery(const std::optional<std::string>& error) = 0;
};

/// Lists the beacon devices nearby, about once per interval. Destroying it ends its callbacks.
class PELM_EXPORT DeviceScanner {
  public:
    virtual ~DeviceScanner() = default;
    /// Whether discovery runs.
    virtual bool isDiscovering() const = 0;
    /// Starts discovery, reporting every `intervalSeconds`.
    virtual void startDiscovery(double intervalSeconds) = 0;
    /// With the scanner's own default interval.
    virtual void startDiscovery() = 0;
    /// Harmless when no discovery runs.
    virtual void stopDiscovery() = 0;
};

/// The beacon vendor's services: its key, a region monitor and a device scanner, each reporting to a
/// delegate held weakly.
class PELM_EXPORT BeaconVendor {
  public:
    virtual ~BeaconVendor() = default;
    /// Registers the vendor key for the whole process.
    virtual void setAPIKey(const std::string& key) = 0;
    /// A region monitor that reports to `delegate`.
    virtual std::unique_ptr<RegionMonitor> makeRegionMonitor(
        std::weak_ptr<RegionMonitorDelegate> delegate) = 0;
    /// A device scanner that reports to `delegate`.
    virtual std::unique_ptr<DeviceScanner> makeDeviceScanner(
        std::weak_ptr<DeviceScannerDelegate> delegate) = 0;
};

}  // namespace pelm::platform
