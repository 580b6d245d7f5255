#include <pelm/status/pelm_device_status_manager.hpp>

#include <pelm/platform/platform.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/pelm_constants.hpp>

#include <pelm/events/visit_event_hub.hpp>

namespace pelm {

std::shared_ptr<PelmDeviceStatusManager> PelmDeviceStatusManager::make() {
    std::shared_ptr<PelmDeviceStatusManager> manager(new PelmDeviceStatusManager());
    if (const auto host = PelmConstants::apiHost()) {
        manager->setupReachability(*host);
    } else {
        Log::error("API host not set.");
    }
    return manager;
}

PelmDeviceStatusManager::PelmDeviceStatusManager()
    : mainQueue_(platform::current()->mainQueue),
      locationManager_(platform::current()->location),
      bluetoothManager_(platform::current()->bluetooth) {}

PelmDeviceStatusManager::~PelmDeviceStatusManager() {
    stopReachabilityNotifier();
}

void PelmDeviceStatusManager::setupReachability(const std::string& hostname) {
    const auto service = platform::current()->reachability;
    if (service) reachability_ = service->makeWatcher(hostname);
    if (!reachability_) {
        Log::error("Unable to create Reachability");
        return;
    }
    // The callbacks may come from another thread and after this manager is gone: they hold it weakly and
    // only hand the work to the main queue, where it is looked at again.
    auto callback = [self = weak_from_this(), queue = mainQueue_](platform::ReachabilityWatcher&) {
        queue->post([self] {
            if (const auto manager = self.lock(); manager && manager->reachability_) {
                manager->didChangeReachability(*manager->reachability_);
            }
        });
    };
    reachability_->setCallbacks(callback, callback);
}

void PelmDeviceStatusManager::didChangeReachability(platform::ReachabilityWatcher& watcher) {
    // The watcher's answer now, not the kind of callback that fired.
    const auto status = watcher.isReachable() ? ReachableStatus::Reachable : ReachableStatus::UnReachable;
    events::emit([&] { return events::ReachabilityChanged{status}; });
    if (delegate) delegate->didChangeReachableStatus(status);
}

void PelmDeviceStatusManager::startReachabilityNotifier() {
    if (!reachability_) return;
    if (!reachability_->startNotifier()) Log::error("Unable to start notifier");
}

void PelmDeviceStatusManager::stopReachabilityNotifier() {
    if (reachability_) reachability_->stopNotifier();
}

void PelmDeviceStatusManager::startLocationNotifier() {
    if (locationManager_ && !locationObservation_) {
        locationObservation_ = locationManager_->observe([self = weak_from_this()](int status) {
            if (const auto manager = self.lock()) manager->informLocationDelegate(status);
        });
    }
    informLocationDelegate(locationManager_ ? locationManager_->authorizationStatus() : 0);
}

void PelmDeviceStatusManager::requestAlwaysLocationAuthorization() {
    if (locationManager_) locationManager_->requestAlwaysAuthorization();
}

void PelmDeviceStatusManager::informLocationDelegate(int status) {
    events::emit([&] { return events::LocationChanged{locationStatusFrom(status)}; });
    if (delegate) delegate->didChangeLocationStatus(locationStatusFrom(status));
}

void PelmDeviceStatusManager::startBluetoothNotifier() {
    if (!bluetoothManager_) return;
    if (!bluetoothObservation_) {
        // A change the platform queued before this observer existed may arrive after the state was read
        // below: only what differs from the last state told is a change.
        bluetoothObservation_ = bluetoothManager_->observe([self = weak_from_this()](int state) {
            const auto manager = self.lock();
            if (manager && manager->toldBluetoothState_ != state) manager->informBluetoothDelegate(state);
        });
    }
    informBluetoothDelegate(bluetoothManager_->state());
}

void PelmDeviceStatusManager::informBluetoothDelegate(int state) {
    toldBluetoothState_ = state;
    events::emit([&] { return events::BluetoothChanged{bluetoothStatusFrom(state)}; });
    if (delegate) delegate->didChangeBluetoothStatus(bluetoothStatusFrom(state));
}

}  // namespace pelm
