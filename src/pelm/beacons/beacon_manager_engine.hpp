#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <pelm/analytics/solvan.hpp>
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/platform/region_monitor.hpp>
#include <pelm/session/pelm_session_manager.hpp>

namespace pelm::detail {

/// What a PelmBeaconManager is made of: the vendor's monitor and scanner, the session manager, the main
/// region and the analytics fields, and every callback of the vendor and of the session manager. The host
/// sees none of it. Tests reach it through `of(manager)`, and make a manager with `make(hooks)`.
class BeaconManagerEngine final : public PelmSessionManagerDelegate,
                                  public platform::RegionMonitorDelegate,
                                  public platform::DeviceScannerDelegate {
  public:
    /// Hears every analytics event as it goes to the bridge.
    using AnalyticsTap = std::function<void(SolvanAnalyticsCategory category, const std::string& action,
                                            const std::optional<std::string>& label)>;
    /// What a test may give a manager before it sets up.
    struct Hooks {
        /// The delegate from the start, so that it hears the set-up lines too.
        std::shared_ptr<PelmBeaconManagerDelegate> delegate;
        AnalyticsTap analytics;
    };
    /// A manager set up as `PelmBeaconManager::make()` sets one up, with `hooks` in place first.
    static std::shared_ptr<PelmBeaconManager> make(Hooks hooks);
    /// The engine of `manager`: its main region, analytics fields and session manager.
    static BeaconManagerEngine& of(PelmBeaconManager& manager);

    BeaconManagerEngine(PelmBeaconManager& owner, std::shared_ptr<platform::BeaconVendor> vendor);

    /// Reads the stored vendor key and UUID once, now, and sets up accordingly.
    void setUp();
    void startMonitoring();
    void stopMonitoring(const std::optional<platform::BeaconRegion>& region);
    void startDiscovery(std::optional<double> interval);
    void stopDiscovery();
    void stop(std::function<void(VisitAtStop)> done);

    const std::shared_ptr<PelmSessionManager>& sessionManager() const { return sessionManager_; }
    const std::optional<platform::BeaconRegion>& mainRegion() const { return mainRegion_; }
    bool firstBeacon() const { return firstBeacon_; }
    std::optional<std::int64_t> lastBeaconMajorId() const { return lastBeaconMajorId_; }

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

  private:
    /// This engine as one of its interfaces, alive as long as its manager.
    template <class Base>
    std::weak_ptr<Base> weakAs();

    void setupSessionManager();
    void setupKontaktSDK();
    void setupMainRegion();
    void monitorNewRegion(const platform::ProximityUUID& uuid, std::uint16_t major, std::uint16_t minor);
    void startRangingForRegion(const platform::BeaconRegion& region);
    void stopRangingForRegion(const platform::BeaconRegion& region);
    void addSessionEntryLogForRegion(const platform::BeaconRegion& region);
    void publishEntry(const platform::BeaconRegion& region, bool alreadyInside);
    void publishFoundInside(const platform::BeaconRegion& region);
    void sendLog(const std::string& text, bool critical) const;

    /// Every analytics event is formed here and handed to the bridge, which keeps nothing.
    void trackEvent(SolvanAnalyticsCategory category, const std::string& action,
                    const std::optional<std::string>& label) const;
    void trackSubRegionEntry(const platform::BeaconRegion& region);
    void trackSubRegionExit(const platform::BeaconRegion& region);
    void trackMainRegionExit();

    PelmBeaconManager& owner_;
    AnalyticsTap analyticsTap_;
    std::shared_ptr<platform::BeaconVendor> vendor_;
    std::unique_ptr<platform::RegionMonitor> beaconManger_;
    std::unique_ptr<platform::DeviceScanner> deviceManager_;
    std::shared_ptr<PelmSessionManager> sessionManager_;
    std::optional<platform::BeaconRegion> mainRegion_;
    bool firstBeacon_ = true;
    bool stopped_ = false;  // by stop(), until startMonitoring()
    std::optional<std::int64_t> lastBeaconMajorId_;
    // Regions reported inside whose entry event waits to see whether the platform tells an entry as well.
    std::set<std::string> foundInside_;
};

}  // namespace pelm::detail
