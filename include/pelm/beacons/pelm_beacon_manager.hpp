#pragma once

#include <pelm/export.hpp>

#include <functional>
#include <memory>
#include <optional>

#include <pelm/beacons/pelm_beacon_manager_delegate.hpp>
#include <pelm/platform/beacon_region.hpp>

namespace pelm {

namespace detail {
class BeaconManagerEngine;
}

/// What became of the visit in progress when a beacon manager stopped (see PelmBeaconManager::stop).
/// \ingroup host_api
enum class VisitAtStop {
    none,         ///< there was none: nothing was recorded since the last upload
    uploaded,     ///< it was ended then and the server stored it
    notUploaded,  ///< it was ended then, and the server refused it or could not be reached: it is lost
};

/// What a host app creates to have beacons detected. It sets up the beacon vendor with the stored key,
/// watches the main region of the stored UUID and, inside it, ranges beacons and watches one sub-region per
/// beacon; the vendor's callbacks drive the session engine, and found content and status lines reach the
/// host app through `delegate`. Use: `make()`, set `delegate`, `startMonitoring()`; all on the main queue.
///
/// It owns the vendor's monitor and scanner and its session engine; destroying it ends their callbacks.
/// \ingroup host_api
class PELM_EXPORT PelmBeaconManager final : public std::enable_shared_from_this<PelmBeaconManager> {
  public:
    /// Reads the stored vendor key and UUID once, now, and sets up accordingly. Never fails: without a key
    /// (or without a beacon platform) it stays without vendor services; without a valid UUID, without a
    /// main region.
    static std::shared_ptr<PelmBeaconManager> make();
    ~PelmBeaconManager();
    PelmBeaconManager(const PelmBeaconManager&) = delete;
    PelmBeaconManager& operator=(const PelmBeaconManager&) = delete;

    /// The host app's receiver, held strongly.
    std::shared_ptr<PelmBeaconManagerDelegate> delegate;

    /// Starts monitoring the main region; a line to the log when there is none or no vendor.
    void startMonitoring();
    /// Stops monitoring `region`; none does nothing.
    void stopMonitoring(const std::optional<platform::BeaconRegion>& region);
    /// Starts nearby-device discovery (with the vendor's own interval when none is given) unless one runs.
    void startDiscoveryWithInterval(std::optional<double> interval);
    /// Stops nearby-device discovery.
    void stopDiscovery();
    /// Stops for a host that is about to exit. Monitoring, ranging and discovery stop, and no vendor
    /// callback is acted on afterwards. The visit in progress ends as it would had the shopper left the
    /// store at this moment, and is uploaded; no exit content is asked for. `done` is called once, on the
    /// main queue: at once when there is no visit, otherwise with the server's answer (an upload already
    /// under way is waited for, not repeated). The host bounds the wait itself, with a timer on its loop.
    /// `startMonitoring()` starts again.
    void stop(std::function<void(VisitAtStop visit)> done);

  private:
    PelmBeaconManager();
    friend class detail::BeaconManagerEngine;
    std::unique_ptr<detail::BeaconManagerEngine> engine_;
};

}  // namespace pelm
