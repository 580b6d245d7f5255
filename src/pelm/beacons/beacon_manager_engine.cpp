#include <pelm/analytics/solvan_texts.hpp>
#include <pelm/beacons/beacon_manager_engine.hpp>

#include <pelm/analytics/google_analytics_manager.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <pelm/events/visit_event_hub.hpp>

namespace pelm::detail {
namespace {

using platform::BeaconRegion;

constexpr const char* kMainRegionIdentifier = "PELM Region";
constexpr const char* kSubRegionIdentifier = "Custom Region";

bool isSubRegion(const BeaconRegion& region) {
    return region.major && region.minor;
}

std::string uuidText(const BeaconRegion& region) {
    return region.proximityUUID.uuidString();
}

// "UUID" for the main region, "UUID/major/minor" for a sub-region.
std::string regionKey(const BeaconRegion& region) {
    if (!isSubRegion(region)) return uuidText(region);
    return uuidText(region) + "/" + std::to_string(*region.major) + "/" + std::to_string(*region.minor);
}

void notifyOnEverything(BeaconRegion& region) {
    region.notifyOnEntry = true;
    region.notifyOnExit = true;
    region.notifyEntryStateOnDisplay = true;
}

const char* authorizationText(platform::AuthorizationStatus status) {
    switch (status) {
        case 0:
            return " status: Not Determined";
        case 1:
            return " status: Restricted";
        case 2:
            return " status: Denied";
        case 3:
            return " status: AuthorizedAlways";
        case 4:
            return " status: AuthorizedWhenInUse";
        default:
            return "";
    }
}

}  // namespace

BeaconManagerEngine::BeaconManagerEngine(PelmBeaconManager& owner,
                                         std::shared_ptr<platform::BeaconVendor> vendor)
    : owner_(owner), vendor_(std::move(vendor)) {}

std::shared_ptr<PelmBeaconManager> BeaconManagerEngine::make(Hooks hooks) {
    std::shared_ptr<PelmBeaconManager> manager(new PelmBeaconManager());
    manager->delegate = std::move(hooks.delegate);
    manager->engine_->analyticsTap_ = std::move(hooks.analytics);
    manager->engine_->setUp();
    return manager;
}

BeaconManagerEngine& BeaconManagerEngine::of(PelmBeaconManager& manager) {
    return *manager.engine_;
}

void BeaconManagerEngine::trackEvent(SolvanAnalyticsCategory category, const std::string& action,
                                     const std::optional<std::string>& label) const {
    if (analyticsTap_) analyticsTap_(category, action, label);
    GoogleAnalyticsManager::trackEvent(category, action, label);
}

template <class Base>
std::weak_ptr<Base> BeaconManagerEngine::weakAs() {
    // The engine lives as long as its manager: the aliasing constructor shares the manager's ownership.
    return std::shared_ptr<Base>(owner_.shared_from_this(), static_cast<Base*>(this));
}

void BeaconManagerEngine::setUp() {
    setupSessionManager();
    setupKontaktSDK();
}

void BeaconManagerEngine::setupSessionManager() {
    sessionManager_ = PelmSessionManager::make();
    sessionManager_->delegate = weakAs<PelmSessionManagerDelegate>();
}

void BeaconManagerEngine::setupKontaktSDK() {
    const auto settings = SettingsManager::sharedInstance();
    const auto key = settings->kontaktIoAPIKey();
    if (!key) {
        Log::error("No Kontakt.io API key set.");
        return;
    }
    if (!vendor_) {
        Log::error("No beacon platform installed.");
        return;
    }
    vendor_->setAPIKey(*key);
    beaconManger_ = vendor_->makeRegionMonitor(weakAs<platform::RegionMonitorDelegate>());
    beaconManger_->requestLocationAlwaysAuthorization();
    // No delegate can be set yet, so these four lines reach no one; they are sent all the same.
    sendLog("Monitored Regions: " + std::to_string(beaconManger_->monitoredRegions().size()), false);
    sendLog("Ranged Regions: " + std::to_string(beaconManger_->rangedRegions().size()), false);
    sendLog("Reseting all monitored regions...", false);
    beaconManger_->stopMonitoringForAllRegions();
    sendLog("Reseting all ranged regions...", false);
    beaconManger_->stopRangingBeaconsInAllRegions();
    setupMainRegion();
    deviceManager_ = vendor_->makeDeviceScanner(weakAs<platform::DeviceScannerDelegate>());
}

void BeaconManagerEngine::setupMainRegion() {
    const auto text = SettingsManager::sharedInstance()->defaultBeaconUUID();
    if (!text) return;
    const auto uuid = platform::ProximityUUID::parse(*text);
    if (!uuid) return;
    BeaconRegion region;
    region.proximityUUID = *uuid;
    region.identifier = kMainRegionIdentifier;
    notifyOnEverything(region);
    mainRegion_ = region;
}

// --- monitoring -------------------------------------------------------------------------------------------

void BeaconManagerEngine::startMonitoring() {
    stopped_ = false;
    if (!mainRegion_) {
        Log::error("Current region is not set.");
        return;
    }
    if (!beaconManger_) {
        Log::error("Region monitoring needs a Kontakt.io API key.");
        return;
    }
    beaconManger_->startMonitoring(*mainRegion_);
    sendLog("Starting core monitoring for uuid: " + uuidText(*mainRegion_), false);
}

void BeaconManagerEngine::stopMonitoring(const std::optional<BeaconRegion>& region) {
    if (!region) return;
    if (!beaconManger_) {
        Log::error("Region monitoring needs a Kontakt.io API key.");
        return;
    }
    beaconManger_->stopMonitoring(*region);
}

void BeaconManagerEngine::stop(std::function<void(VisitAtStop)> done) {
    stopped_ = true;
    if (beaconManger_) {
        beaconManger_->stopMonitoringForAllRegions();
        beaconManger_->stopRangingBeaconsInAllRegions();
    }
    if (deviceManager_ && deviceManager_->isDiscovering()) deviceManager_->stopDiscovery();
    // A start after this one is a first start: what is in range then is new, found and entered again.
    sessionManager_->forgetBeaconsInRange();
    foundInside_.clear();

    if (!done) done = [](VisitAtStop) {};
    const auto answered = [done](bool stored) {
        done(stored ? VisitAtStop::uploaded : VisitAtStop::notUploaded);
    };
    // An upload under way is the visit's; otherwise the visit ends now, as leaving the store ends it.
    if (sessionManager_->whenUploaded(answered)) return;
    if (sessionManager_->visitInProgress() && sessionManager_->finishSession(answered)) return;
    const auto visit = sessionManager_->visitInProgress() ? VisitAtStop::notUploaded : VisitAtStop::none;
    platform::current()->mainQueue->post([done, visit] { done(visit); });
}

void BeaconManagerEngine::monitorNewRegion(const platform::ProximityUUID& uuid, std::uint16_t major,
                                           std::uint16_t minor) {
    BeaconRegion region;
    region.proximityUUID = uuid;
    region.major = major;
    region.minor = minor;
    // All sub-regions share one identifier, so each new one replaces the one watched before.
    region.identifier = kSubRegionIdentifier;
    notifyOnEverything(region);
    if (!beaconManger_) return;
    beaconManger_->startMonitoring(region);
    beaconManger_->requestState(region);
    sendLog("Starting monitoring for: major: " + std::to_string(major) + " minor: " + std::to_string(minor),
            false);
}

void BeaconManagerEngine::startRangingForRegion(const BeaconRegion& region) {
    if (beaconManger_) beaconManger_->startRanging(region);
}

void BeaconManagerEngine::stopRangingForRegion(const BeaconRegion& region) {
    if (beaconManger_) beaconManger_->stopRanging(region);
    std::string line = "Stop ranging for:";
    if (region.major) line += " major: " + std::to_string(*region.major);
    if (region.minor) line += " minor: " + std::to_string(*region.minor);
    if (const auto uuid = uuidText(region); !uuid.empty()) line += " uuid: " + uuid;
    sendLog(line, false);
}

void BeaconManagerEngine::addSessionEntryLogForRegion(const BeaconRegion& region) {
    if (!isSubRegion(region)) return;
    sessionManager_->addEntryEvent(std::make_shared<Beacon>(uuidText(region), std::to_string(*region.major),
                                                            std::to_string(*region.minor)));
}

// --- the vendor's callbacks -------------------------------------------------------------------------------

void BeaconManagerEngine::didChangeLocationAuthorizationStatus(platform::AuthorizationStatus status) {
    if (stopped_) return;
    std::string line = "DidChangeLocationAuthorizationState";
    line += authorizationText(status);
    if (status == 3 && mainRegion_ && beaconManger_) beaconManger_->requestState(*mainRegion_);
    sendLog(line, false);
}

void BeaconManagerEngine::didDetermineState(platform::RegionState state, const BeaconRegion& region) {
    if (stopped_) return;
    std::string line = "DidDetermineState";
    switch (state) {
        case platform::RegionState::Unknown:
            line += " state: Unknown";
            break;
        case platform::RegionState::Outside:
            line += " state: Outside";
            break;
        case platform::RegionState::Inside:
            line += " state: Inside";
            publishFoundInside(region);
            startDiscovery(2.0);
            startRangingForRegion(region);
            addSessionEntryLogForRegion(region);
            break;
    }
    // After the actions, so the discovery line comes first.
    sendLog(line, false);
}

void BeaconManagerEngine::didEnterRegion(const BeaconRegion& region) {
    if (stopped_) return;
    foundInside_.erase(regionKey(region));
    publishEntry(region, false);
    startRangingForRegion(region);
    const auto uuid = uuidText(region);
    if (isSubRegion(region)) {
        sendLog("Entering SUB Region: " + uuid + " - " + std::to_string(*region.major) + " - " +
                    std::to_string(*region.minor),
                false);
        addSessionEntryLogForRegion(region);
        trackSubRegionEntry(region);
        return;
    }
    sendLog("Entering MAIN Region: " + uuid, false);
    startDiscovery(2.0);
    firstBeacon_ = true;
}

void BeaconManagerEngine::didRangeBeacons(const std::vector<platform::RangedBeacon>& beacons,
                                          const BeaconRegion&) {
    if (stopped_) return;
    events::emit([&] {
        events::BeaconsRanged ranged;
        for (const auto& beacon : beacons) {
            ranged.beacons.push_back(
                {events::identityOf(Beacon(beacon.proximityUUID, beacon.major, beacon.minor)), beacon.rssi,
                 beacon.accuracy, events::proximityOf(beacon.accuracy)});
        }
        return ranged;
    });
    for (const auto& ranged : beacons) {
        if (sessionManager_->addBeacon(
                std::make_shared<Beacon>(ranged.proximityUUID, ranged.major, ranged.minor))) {
            monitorNewRegion(ranged.proximityUUID, ranged.major, ranged.minor);
        }
    }
}

void BeaconManagerEngine::didExitRegion(const BeaconRegion& region) {
    if (stopped_) return;
    const auto uuid = uuidText(region);
    if (isSubRegion(region)) {
        events::emit([&] { return events::SubRegionLeft{events::identityOf(region)}; });
    } else {
        events::emit([&] { return events::MainRegionLeft{uuid}; });
    }
    auto beacon = std::make_shared<Beacon>();
    beacon->uuid = uuid;
    if (region.major) beacon->major = std::to_string(*region.major);
    if (region.minor) beacon->minor = std::to_string(*region.minor);
    sessionManager_->removeBeacon(beacon);
    stopRangingForRegion(region);
    if (isSubRegion(region)) {
        sendLog("Exiting SUB Region: " + uuid + " - " + std::to_string(*region.major) + " - " +
                    std::to_string(*region.minor),
                false);
        sessionManager_->addExitEvent(beacon);
        stopMonitoring(region);
        lastBeaconMajorId_ = *region.major;
        trackSubRegionExit(region);
        return;
    }
    sendLog("Exiting MAIN Region: " + uuid, false);
    sessionManager_->finishSession();
    stopDiscovery();
    trackMainRegionExit();
}

// The platform tells an entry by its state and by the entry itself, and tells the state alone of a region it
// finds itself inside. Each is one entry event: the state's waits for the queue's next turn, and an entry
// told meanwhile takes its place.
void BeaconManagerEngine::publishFoundInside(const BeaconRegion& region) {
    if (!foundInside_.insert(regionKey(region)).second) return;
    platform::current()->mainQueue->post([alive = weakAs<platform::RegionMonitorDelegate>(), region] {
        const auto self = alive.lock();
        if (!self) return;
        auto& engine = static_cast<BeaconManagerEngine&>(*self);
        if (engine.foundInside_.erase(regionKey(region)) > 0 && !engine.stopped_)
            engine.publishEntry(region, true);
    });
}

void BeaconManagerEngine::publishEntry(const BeaconRegion& region, bool alreadyInside) {
    if (isSubRegion(region)) {
        events::emit([&] { return events::SubRegionEntered{events::identityOf(region), alreadyInside}; });
    } else {
        events::emit([&] { return events::MainRegionEntered{uuidText(region), alreadyInside}; });
    }
}

// --- discovery --------------------------------------------------------------------------------------------

void BeaconManagerEngine::startDiscovery(std::optional<double> interval) {
    if (!deviceManager_) {
        Log::error("Nearby-device discovery needs a Kontakt.io API key.");
        return;
    }
    if (deviceManager_->isDiscovering()) {
        sendLog("Already discovery...", false);
        return;
    }
    if (interval) {
        deviceManager_->startDiscovery(*interval);
    } else {
        deviceManager_->startDiscovery();
    }
    sendLog("Starting discovery with interval", false);
}

void BeaconManagerEngine::stopDiscovery() {
    if (!deviceManager_) {
        Log::error("Nearby-device discovery needs a Kontakt.io API key.");
        return;
    }
    deviceManager_->stopDiscovery();
    sendLog("Stopping discovery with interval", false);
}

void BeaconManagerEngine::didDiscoverDevices(
    const std::optional<std::vector<platform::NearbyDevice>>& devices) {
    if (stopped_ || !devices) return;
    std::vector<DiscoveredBeacon> found;
    found.reserve(devices->size());
    std::vector<events::UntoldValues> untold;
    for (const auto& device : *devices) {
        // A device without a unique identifier is left out: the host app could not tell it from others.
        auto beacon = DiscoveredBeacon::fromKontaktBeacon(device);
        if (!beacon) continue;
        found.push_back(std::move(*beacon));
        untold.push_back({!device.transmissionPower, !device.firmwareVersion, !device.batteryLevel});
    }
    if (found.empty()) return;
    events::emit([&] { return events::NearbyDevices{found, untold}; });
    if (owner_.delegate) owner_.delegate->didDiscoverBeacons(found);
}

void BeaconManagerEngine::didFailToStartDiscovery(const std::optional<std::string>&) {}

// --- the session manager's callbacks and the host's lines -------------------------------------------------

void BeaconManagerEngine::didFindNewContent(std::shared_ptr<Content> content,
                                            std::shared_ptr<Beacon> beacon) {
    if (owner_.delegate) owner_.delegate->didFindContent(content);
    std::string line = "Did find new content";
    if (content && content->textRecord && content->textRecord->name)
        line += ": " + *content->textRecord->name;
    sendLog(line, false);
    if (beacon && beacon->uuid && beacon->major && beacon->minor) {
        trackEvent(SolvanAnalyticsCategory::beaconViews,
                   std::string(rawValue(SolvanAnalyticsAction::discoverd)),
                   Solvan::eventLabelByBeacon(*beacon->uuid, *beacon->major, *beacon->minor));
    }
}

void BeaconManagerEngine::didChangeSessionStatus(const std::string& status, bool critical) {
    sendLog(status, critical);
}

void BeaconManagerEngine::sendLog(const std::string& text, bool critical) const {
    if (owner_.delegate) owner_.delegate->didReceiveLog(text, critical);
}

// --- analytics --------------------------------------------------------------------------------------------

void BeaconManagerEngine::trackSubRegionEntry(const BeaconRegion& region) {
    const auto store = Solvan::storeName(*region.major);
    const std::string enter(rawValue(SolvanAnalyticsLabel::enter));
    const auto label = Solvan::eventLabelByBeacon(uuidText(region), std::to_string(*region.major),
                                                  std::to_string(*region.minor));
    trackEvent(SolvanAnalyticsCategory::beaconStoreMerchandiseGroup, store,
               Solvan::merchandiseGroupName(*region.minor));
    if (firstBeacon_) {
        trackEvent(SolvanAnalyticsCategory::beaconStoreDwellTime, store, enter);
        firstBeacon_ = false;
    }
    trackEvent(SolvanAnalyticsCategory::beaconViews, store, label);
    trackEvent(SolvanAnalyticsCategory::beaconMerchandiseGroupDwellTime, store, enter);
    trackEvent(SolvanAnalyticsCategory::beaconViews, std::string(rawValue(SolvanAnalyticsAction::discoverd)),
               label);
}

void BeaconManagerEngine::trackSubRegionExit(const BeaconRegion& region) {
    trackEvent(SolvanAnalyticsCategory::beaconMerchandiseGroupDwellTime, Solvan::storeName(*region.major),
               std::string(rawValue(SolvanAnalyticsLabel::exit)));
}

void BeaconManagerEngine::trackMainRegionExit() {
    // May name the store of a beacon left during an earlier visit: the value is never cleared.
    if (!lastBeaconMajorId_) return;
    trackEvent(SolvanAnalyticsCategory::beaconStoreDwellTime, Solvan::storeName(*lastBeaconMajorId_),
               std::string(rawValue(SolvanAnalyticsLabel::exit)));
}

}  // namespace pelm::detail
