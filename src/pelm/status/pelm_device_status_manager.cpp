#include <pelm/status/pelm_device_status_manager.hpp>

#include <pelm/platform/platform.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/pelm_constants.hpp>

#include <pelm/events/visit_event_hub.hpp>

namespace pelm {

/// What the manager holds: the platform's services it watches, and what it told last.
struct PelmDeviceStatusManager::State {
    std::shared_ptr<platform::MainQueue> mainQueue = platform::current()->mainQueue;
    std::unique_ptr<platform::ReachabilityWatcher> reachability;
    std::shared_ptr<platform::LocationAuthorization> locationManager = platform::current()->location;
    std::shared_ptr<platform::BluetoothState> bluetoothManager = platform::current()->bluetooth;
    std::shared_ptr<void> locationObservation;
    std::shared_ptr<void> bluetoothObservation;
    std::optional<int> toldBluetoothState;
};

namespace {

void didChangeReachability(PelmDeviceStatusManager& manager, platform::ReachabilityWatcher& watcher) {
    // The watcher's answer now, not the kind of callback that fired.
    const auto status = watcher.isReachable() ? ReachableStatus::Reachable : ReachableStatus::UnReachable;
    events::emit([&] { return events::ReachabilityChanged{status}; });
    if (manager.delegate) manager.delegate->didChangeReachableStatus(status);
}

void informLocationDelegate(PelmDeviceStatusManager& manager, int status) {
    events::emit([&] { return events::LocationChanged{locationStatusFrom(status)}; });
    if (manager.delegate) manager.delegate->didChangeLocationStatus(locationStatusFrom(status));
}

void informBluetoothDelegate(PelmDeviceStatusManager& manager, std::optional<int>& told, int state) {
    told = state;
    events::emit([&] { return events::BluetoothChanged{bluetoothStatusFrom(state)}; });
    if (manager.delegate) manager.delegate->didChangeBluetoothStatus(bluetoothStatusFrom(state));
}

}  // namespace

std::shared_ptr<PelmDeviceStatusManager> PelmDeviceStatusManager::make() {
    auto manager = std::make_shared<PelmDeviceStatusManager>(std::make_unique<State>());
    const auto host = PelmConstants::apiHost();
    if (!host) {
        Log::error("API host not set.");
        return manager;
    }
    auto& state = *manager->state_;
    if (const auto service = platform::current()->reachability)
        state.reachability = service->makeWatcher(*host);
    if (!state.reachability) {
        Log::error("Unable to create Reachability");
        return manager;
    }
    // The callbacks may come from another thread and after this manager is gone: they hold it weakly and
    // only hand the work to the main queue, where it is looked at again.
    auto callback = [self = std::weak_ptr(manager), queue = state.mainQueue](platform::ReachabilityWatcher&) {
        queue->post([self] {
            if (const auto alive = self.lock(); alive && alive->state_->reachability) {
                didChangeReachability(*alive, *alive->state_->reachability);
            }
        });
    };
    state.reachability->setCallbacks(callback, callback);
    return manager;
}

PelmDeviceStatusManager::PelmDeviceStatusManager(std::unique_ptr<State> state) : state_(std::move(state)) {}

PelmDeviceStatusManager::~PelmDeviceStatusManager() {
    stopReachabilityNotifier();
}

void PelmDeviceStatusManager::startReachabilityNotifier() {
    if (!state_->reachability) return;
    if (!state_->reachability->startNotifier()) Log::error("Unable to start notifier");
}

void PelmDeviceStatusManager::stopReachabilityNotifier() {
    if (state_->reachability) state_->reachability->stopNotifier();
}

void PelmDeviceStatusManager::startLocationNotifier() {
    const auto& location = state_->locationManager;
    if (location && !state_->locationObservation) {
        state_->locationObservation = location->observe([self = weak_from_this()](int status) {
            if (const auto manager = self.lock()) informLocationDelegate(*manager, status);
        });
    }
    informLocationDelegate(*this, location ? location->authorizationStatus() : 0);
}

void PelmDeviceStatusManager::requestAlwaysLocationAuthorization() {
    if (state_->locationManager) state_->locationManager->requestAlwaysAuthorization();
}

void PelmDeviceStatusManager::startBluetoothNotifier() {
    const auto& bluetooth = state_->bluetoothManager;
    if (!bluetooth) return;
    if (!state_->bluetoothObservation) {
        // A change the platform queued before this observer existed may arrive after the state was read
        // below: only what differs from the last state told is a change.
        state_->bluetoothObservation = bluetooth->observe([self = weak_from_this()](int state) {
            const auto manager = self.lock();
            if (manager && manager->state_->toldBluetoothState != state)
                informBluetoothDelegate(*manager, manager->state_->toldBluetoothState, state);
        });
    }
    informBluetoothDelegate(*this, state_->toldBluetoothState, bluetooth->state());
}

}  // namespace pelm
