#pragma once

#include <pelm/export.hpp>

#include <memory>
#include <optional>

#include <pelm/platform/device_status_sources.hpp>
#include <pelm/platform/main_queue.hpp>
#include <pelm/status/pelm_device_status_manager_delegate.hpp>

namespace pelm {

/// Tells the host app whether the content server's host can be reached, whether location use is allowed and
/// whether Bluetooth is on, and again at every change. Make it, set `delegate`, start the notifiers wanted.
/// Everything reaches the delegate on the main queue; nothing arrives after the manager is destroyed.
class PELM_EXPORT PelmDeviceStatusManager : public std::enable_shared_from_this<PelmDeviceStatusManager> {
  public:
    /// Watches the host the settings held when first asked (see PelmConstants::apiHost).
    static std::shared_ptr<PelmDeviceStatusManager> make();
    /// Stops the reachability watcher first.
    ~PelmDeviceStatusManager();
    PelmDeviceStatusManager(const PelmDeviceStatusManager&) = delete;
    PelmDeviceStatusManager& operator=(const PelmDeviceStatusManager&) = delete;

    /// Held strongly.
    std::shared_ptr<PelmDeviceStatusManagerDelegate> delegate;

    void startReachabilityNotifier();
    void stopReachabilityNotifier();
    /// Reports the current authorisation at once, then every change.
    void startLocationNotifier();
    void requestAlwaysLocationAuthorization();
    /// Reports the current state at once (Unknown while undetermined), then every change.
    void startBluetoothNotifier();

  private:
    PelmDeviceStatusManager();
    void setupReachability(const std::string& hostname);
    void didChangeReachability(platform::ReachabilityWatcher& watcher);
    void informLocationDelegate(int status);
    void informBluetoothDelegate(int state);

    std::shared_ptr<platform::MainQueue> mainQueue_;
    std::unique_ptr<platform::ReachabilityWatcher> reachability_;
    std::shared_ptr<platform::LocationAuthorization> locationManager_;
    std::shared_ptr<platform::BluetoothState> bluetoothManager_;
    std::shared_ptr<void> locationObservation_;
    std::shared_ptr<void> bluetoothObservation_;
    std::optional<int> toldBluetoothState_;
};

}  // namespace pelm
