#include <pelm/beacons/pelm_beacon_manager.hpp>

#include <pelm/beacons/beacon_manager_engine.hpp>
#include <pelm/platform/platform.hpp>

namespace pelm {

std::shared_ptr<PelmBeaconManager> PelmBeaconManager::make() {
    return detail::BeaconManagerEngine::make({});
}

PelmBeaconManager::PelmBeaconManager()
    : engine_(std::make_unique<detail::BeaconManagerEngine>(*this, platform::current()->beaconVendor)) {}

PelmBeaconManager::~PelmBeaconManager() = default;

void PelmBeaconManager::startMonitoring() {
    engine_->startMonitoring();
}

void PelmBeaconManager::stopMonitoring(const std::optional<platform::BeaconRegion>& region) {
    engine_->stopMonitoring(region);
}

void PelmBeaconManager::startDiscoveryWithInterval(std::optional<double> interval) {
    engine_->startDiscovery(interval);
}

void PelmBeaconManager::stopDiscovery() {
    engine_->stopDiscovery();
}

void PelmBeaconManager::stop(std::function<void(VisitAtStop visit)> done) {
    engine_->stop(std::move(done));
}

}  // namespace pelm
