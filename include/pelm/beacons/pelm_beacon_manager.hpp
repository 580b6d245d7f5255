#pragma once

#include <pelm/export.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pelm/analytics/solvan.hpp>
#include <pelm/beacons/pelm_beacon_manager_delegate.hpp>
#include <pelm/platform/region_monitor.hpp>
#include <pelm/session/pelm_session_manager.hpp>

namespace pelm {

/// What a host app creates to have beacons detected. It sets up the beacon vendor with the stored key,
/// watches the main region of the stored UUID and, inside it, ranges beacons and watches one sub-region per
/// beacon; the vendor's callbacks drive the session engine, and found content and status lines reach the
/// host app through `delegate`. Use: `make()`, set `delegate`, `startMonitoring()`; all on the main queue.
///
/// It owns the vendor's monitor and scanner and its session manager; destroying it ends their callbacks.
///
/// The vendor's and the session manager's callbacks are the manager's own business: they are private, and
/// only the vendor and the session manager reach them.
class PELM_EXPORT PelmBeaconManager : public std::enable_shared_from_this<PelmBeaconManager>,
                                      private PelmSessionManagerDelegate,
                                      private platform::RegionMonitorDelegate,
                                      private platform::DeviceScannerDelegate {
  public:
    /// Reads the stored vendor key and UUID once, now, and sets up accordingly. Never fails: without a key
    /// (or without a beacon platform) it stays without vendor services; without a valid UUID, without a
    /// main region.
    static std::shared_ptr<PelmBeaconManager> make();
    /// The same for a subclass, constructed with `args`.
    template <class Manager, class... Args>
    static std::shared_ptr<Manager> make(Args&&... args) {
        std::shared_ptr<Manager> manager(new Manager(std::forward<Args>(args)...));
        manager->setUp();
        return manager;
    }
    ~PelmBeaconManager() override = default;

    /// The host app's receiver, held strongly.
    std::shared_ptr<PelmBeaconManagerDelegate> delegate;

    void startMonitoring();
    virtual void stopMonitoring(const std::optional<platform::BeaconRegion>& region);
    /// Starts nearby-device discovery (with the vendor's own interval when none is given) unless one runs.
    virtual void startDiscoveryWithInterval(std::optional<double> interval);
    virtual void stopDiscovery();

    // State, for diagnostics and tests.
    const std::shared_ptr<PelmSessionManager>& sessionManager() const { return sessionManager_; }
    const std::optional<platform::BeaconRegion>& mainRegion() const { return mainRegion_; }
    bool firstBeacon() const { return firstBeacon_; }
    std::optional<std::int64_t> lastBeaconMajorId() const { return lastBeaconMajorId_; }

  protected:
    /// Uses the installed platform's beacon vendor.
    PelmBeaconManager();
    explicit PelmBeaconManager(std::shared_ptr<platform::BeaconVendor> vendor);
    void setUp();

    /// Every analytics event is formed here and handed to the bridge, which keeps nothing. A subclass may
    /// watch them.
    virtual void trackEvent(SolvanAnalyticsCategory category, const std::string& action,
                            const std::optional<std::string>& label);

  private:
    friend struct BeaconManagerCallbacks;  // lets the tests play the vendor
    /// This manager as one of its private bases, for the vendor and the session manager to call back.
    template <class Base>
    std::weak_ptr<Base> weakAs();

    // The vendor's callbacks.
    void didChangeLocationAuthorizationStatus(platform::AuthorizationStatus status) override;
    void didDetermineState(platform::RegionState state, const platform::BeaconRegion& region) override;
    void didEnterRegion(const platform::BeaconRegion& region) override;
    void didExitRegion(const platform::BeaconRegion& region) override;
    void didRangeBeacons(const std::vector<platform::RangedBeacon>& beacons,
                         const platform::BeaconRegion& region) override;
    void didDiscoverDevices(const std::optional<std::vector<platform::NearbyDevice>>& devices) override;
    void didFailToStartDiscovery(const std::optional<std::string>& error) override;

    // The session manager's callbacks.
    void didFindNewContent(std::shared_ptr<Content> content, std::shared_ptr<Beacon> beacon) override;
    void didChangeSessionStatus(const std::string& status, bool critical) override;

    void setupSessionManager();
    void setupKontaktSDK();
    void setupMainRegion();
    void monitorNewRegion(const platform::ProximityUUID& uuid, std::uint16_t major, std::uint16_t minor);
    void startRangingForRegion(const platform::BeaconRegion& region);
    void stopRangingForRegion(const platform::BeaconRegion& region);
    void addSessionEntryLogForRegion(const platform::BeaconRegion& region);
    void publishEntry(const platform::BeaconRegion& region, bool alreadyInside);
    void sendLog(const std::string& text, bool critical) const;

    void trackSubRegionEntry(const platform::BeaconRegion& region);
    void trackSubRegionExit(const platform::BeaconRegion& region);
    void trackMainRegionExit();

    std::shared_ptr<platform::BeaconVendor> vendor_;
    std::unique_ptr<platform::RegionMonitor> beaconManger_;
    std::unique_ptr<platform::DeviceScanner> deviceManager_;
    std::shared_ptr<PelmSessionManager> sessionManager_;
    std::optional<platform::BeaconRegion> mainRegion_;
    bool firstBeacon_ = true;
    std::optional<std::int64_t> lastBeaconMajorId_;
};

}  // namespace pelm
