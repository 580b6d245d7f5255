#pragma once

#include <pelm/export.hpp>

#include <memory>
#include <optional>

#include <pelm/status/pelm_device_status_manager_delegate.hpp>

namespace pelm {

/// Tells the host app whether the content server's host can be reached, whether location use is allowed and
/// whether Bluetooth is on, and again at every change. Make it, set `delegate`, start the notifiers wanted.
/// Everything reaches the delegate on the main queue; nothing arrives after the manager is destroyed.
/// \ingroup host_api
class PelmDeviceStatusManager : public std::enable_shared_from_this<PelmDeviceStatusManager> {
    struct State;

  public:
    /// Watches the host the settings held when first asked (see PelmConstants::apiHost).
    PELM_EXPORT static std::shared_ptr<PelmDeviceStatusManager> make();
    /// Stops the reachability watcher first.
    PELM_EXPORT ~PelmDeviceStatusManager();
    PelmDeviceStatusManager(const PelmDeviceStatusManager&) = delete;
    PelmDeviceStatusManager& operator=(const PelmDeviceStatusManager&) = delete;
    /// What make() builds on; only the library holds a State.
    explicit PelmDeviceStatusManager(std::unique_ptr<State> state);

    /// Held strongly.
    std::shared_ptr<PelmDeviceStatusManagerDelegate> delegate;

    /// Reports whether the server's host can be reached, at every change.
    PELM_EXPORT void startReachabilityNotifier();
    /// Stops the reachability reports.
    PELM_EXPORT void stopReachabilityNotifier();
    /// Reports the current authorisation at once, then every change.
    PELM_EXPORT void startLocationNotifier();
    /// Asks the platform for the "always" location authorisation.
    PELM_EXPORT void requestAlwaysLocationAuthorization();
    /// Reports the current state at once (Unknown while undetermined), then every change.
    PELM_EXPORT void startBluetoothNotifier();

  private:
    std::unique_ptr<State> state_;
};

}  // namespace pelm
