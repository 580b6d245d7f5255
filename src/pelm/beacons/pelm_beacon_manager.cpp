#include <pelm/beacons/pelm_beacon_manager.hpp>

#include <pelm/analytics/google_analytics_manager.hpp>
#include <pelm/beacons/beacon_manager_engine.hpp>
#include <pelm/platform/platform.hpp>

namespace pelm {

std::shared_ptr<PelmBeaconManager> PelmBeaconManager::make() {
    return make<PelmBeaconManager>();
}

PelmBeaconManager::PelmBeaconManager() : PelmBeaconManager(platform::current()->beaconVendor) {}

PelmBeaconManager::PelmBeaconManager(std::shared_ptr<platform::BeaconVendor> vendor)
    : engine_(std::make_unique<detail::BeaconManagerEngine>(*this, std::move(vendor))) {}

PelmBeaconManager::~PelmBeaconManager() = default;

void PelmBeaconManager::setUp() {
    engine_->setUp();
}

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

const std::optional<platform::BeaconRegion>& PelmBeaconManager::mainRegion() const {
    return engine_->mainRegion();
}

bool PelmBeaconManager::firstBeacon() const {
    return engine_->firstBeacon();
}

std::optional<std::int64_t> PelmBeaconManager::lastBeaconMajorId() const {
    return engine_->lastBeaconMajorId();
}

const std::shared_ptr<PelmSessionManager>& PelmBeaconManager::sessionManager() const {
    return engine_->sessionManager();
}

void PelmBeaconManager::trackEvent(SolvanAnalyticsCategory category, const std::string& action,
                                   const std::optional<std::string>& label) {
    GoogleAnalyticsManager::trackEvent(category, action, label);
}

}  // namespace pelm
