#include <pelm/platform/ble/region_engine.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace pelm::platform {

RegionEngine::BeaconKey::BeaconKey(const IBeaconFrame& frame) {
    std::array<std::uint8_t, 32> bytes{};
    std::copy(frame.proximityUUID.bytes.begin(), frame.proximityUUID.bytes.end(), bytes.begin());
    auto* numbers = reinterpret_cast<char*>(bytes.data() + 16);
    auto* end = numbers + 16;
    auto* at = std::to_chars(numbers, end, frame.major).ptr;
    *at++ = '/';
    std::to_chars(at, end, frame.minor);
    for (std::size_t word = 0; word < words.size(); ++word) {
        for (std::size_t i = 0; i < 8; ++i) words[word] = words[word] << 8 | bytes[word * 8 + i];
    }
}

class RegionEngine::Monitor final : public RegionMonitor {
  public:
    Monitor(std::shared_ptr<RegionEngine> engine, std::weak_ptr<RegionMonitorDelegate> delegate)
        : engine_(std::move(engine)), delegate(std::move(delegate)) {}
    ~Monitor() override {
        engine_->monitor_ = nullptr;
        engine_->monitored_.clear();
        engine_->ranged_.clear();
    }

    void requestLocationAlwaysAuthorization() override {
        const auto status = engine_->options_.authorization;
        engine_->queue_->post([weak = delegate, status] {
            if (auto d = weak.lock()) d->didChangeLocationAuthorizationStatus(status);
        });
    }
    std::vector<BeaconRegion> monitoredRegions() const override {
        std::vector<BeaconRegion> list;
        for (const auto& [id, watched] : engine_->monitored_) list.push_back(watched.region);
        return list;
    }
    std::vector<BeaconRegion> rangedRegions() const override {
        std::vector<BeaconRegion> list;
        for (const auto& [id, region] : engine_->ranged_) list.push_back(region);
        return list;
    }
    void stopMonitoringForAllRegions() override { engine_->monitored_.clear(); }
    void stopRangingBeaconsInAllRegions() override { engine_->ranged_.clear(); }
    void startMonitoring(const BeaconRegion& region) override {
        // The same region again keeps what is known of it: its state and when it was last heard.
        if (const auto found = engine_->monitored_.find(region.identifier);
            found != engine_->monitored_.end() && found->second.region == region) {
            return;
        }
        // Already inside when monitoring starts: the state when asked, then the entry, as a phone that
        // starts watching a beacon it hears tells both.
        Watched watched{region, RegionState::Unknown, Date{}, false};
        const auto now = engine_->queue_->now();
        if (const auto heard = engine_->lastHeard(region);
            heard && now - *heard < engine_->options_.exitTimeout) {
            watched.state = RegionState::Inside;
            watched.lastHeard = *heard;
            watched.entryOwed = region.notifyOnEntry;
        }
        engine_->monitored_.insert_or_assign(region.identifier, watched);
        engine_->scheduleTick();  // an inside region needs ticks to be left
    }
    void stopMonitoring(const BeaconRegion& region) override { engine_->monitored_.erase(region.identifier); }
    void requestState(const BeaconRegion& region) override {
        const auto state = engine_->currentState(region);
        if (state != RegionState::Unknown) {
            engine_->queue_->post([engine = std::weak_ptr(engine_), weak = delegate, state, region] {
                if (auto d = weak.lock()) d->didDetermineState(state, region);
                if (const auto alive = engine.lock()) alive->payEntry(region);
            });
            return;
        }
        // Not heard yet: the phone listens for one ranging period, and what it has not heard by then is
        // outside.
        engine_->queue_->postAfter(
            engine_->options_.rangingPeriod, [engine = std::weak_ptr(engine_), weak = delegate, region] {
                const auto alive = engine.lock();
                if (!alive || alive->monitor_ == nullptr) return;
                const auto found = alive->monitored_.find(region.identifier);
                const bool monitored = found != alive->monitored_.end() && found->second.region == region;
                // A beacon heard in the meantime made a transition, which told the state already.
                if (monitored && found->second.state != RegionState::Unknown) return;
                auto answer = alive->currentState(region);
                if (answer == RegionState::Unknown) {
                    answer = RegionState::Outside;
                    if (monitored) found->second.state = answer;
                }
                if (auto d = weak.lock()) d->didDetermineState(answer, region);
            });
    }
    void startRanging(const BeaconRegion& region) override {
        engine_->ranged_.insert_or_assign(region.identifier, region);
        engine_->scheduleTick();
    }
    void stopRanging(const BeaconRegion& region) override { engine_->ranged_.erase(region.identifier); }

    std::shared_ptr<RegionEngine> engine_;
    std::weak_ptr<RegionMonitorDelegate> delegate;
};

class RegionEngine::Scanner final : public DeviceScanner {
  public:
    Scanner(std::shared_ptr<RegionEngine> engine, std::weak_ptr<DeviceScannerDelegate> delegate)
        : engine_(std::move(engine)), delegate(std::move(delegate)) {}
    ~Scanner() override { engine_->scanner_ = nullptr; }

    bool isDiscovering() const override { return discovering; }
    void startDiscovery(double intervalSeconds) override {
        // A host may pass anything; what is not a sensible interval gets the scanner's own.
        const bool sensible =
            std::isfinite(intervalSeconds) && intervalSeconds > 0 && intervalSeconds <= 3600;
        start(sensible ? std::chrono::milliseconds(std::llround(intervalSeconds * 1000))
                       : engine_->options_.defaultDiscoveryInterval);
    }
    void startDiscovery() override { start(engine_->options_.defaultDiscoveryInterval); }
    void stopDiscovery() override { discovering = false; }

    void start(std::chrono::milliseconds every) {
        discovering = true;
        interval = std::max(every, std::chrono::milliseconds(100));
        nextReport = engine_->queue_->now() + interval;
        engine_->scheduleTick();
    }

    std::shared_ptr<RegionEngine> engine_;
    std::weak_ptr<DeviceScannerDelegate> delegate;
    bool discovering = false;
    std::chrono::milliseconds interval{0};
    Date nextReport{};
};

RegionEngine::RegionEngine(std::shared_ptr<MainQueue> mainQueue, RegionEngineOptions options)
    : queue_(std::move(mainQueue)), options_(options) {}

RegionEngine::~RegionEngine() {
    if (tick_) queue_->cancel(*tick_);
}

std::unique_ptr<RegionMonitor> RegionEngine::makeRegionMonitor(
    std::weak_ptr<RegionMonitorDelegate> delegate) {
    auto monitor = std::make_unique<Monitor>(shared_from_this(), std::move(delegate));
    monitor_ = monitor.get();
    scheduleTick();
    return monitor;
}

std::unique_ptr<DeviceScanner> RegionEngine::makeDeviceScanner(
    std::weak_ptr<DeviceScannerDelegate> delegate) {
    auto scanner = std::make_unique<Scanner>(shared_from_this(), std::move(delegate));
    scanner_ = scanner.get();
    scheduleTick();
    return scanner;
}

// Ticks keep the phase of the first one, however often they pause: a run replays the same whether or not
// the engine slept through a silence.
void RegionEngine::scheduleTick() {
    if (tick_ || (monitor_ == nullptr && scanner_ == nullptr)) return;
    const auto now = queue_->now();
    if (!tickPhase_) tickPhase_ = now;
    const auto period = options_.rangingPeriod;
    const auto sincePhase = std::chrono::duration_cast<std::chrono::milliseconds>(now - *tickPhase_);
    const auto delay = sincePhase.count() < 0 ? period : period - sincePhase % period;
    tick_ = queue_->postAfter(delay, [weak = weak_from_this()] {
        if (auto engine = weak.lock()) {
            engine->tick_.reset();
            engine->tick();
            if (engine->needsTicks()) engine->scheduleTick();
        }
    });
}

// A tick can change something only while a region is inside (it may be left), something is ranged or
// discovery runs (they report). Otherwise the engine sleeps until it hears something or is asked to range
// or discover, so silence of any length costs nothing.
bool RegionEngine::needsTicks() const {
    if (!ranged_.empty() || (scanner_ != nullptr && scanner_->discovering)) return true;
    return std::any_of(monitored_.begin(), monitored_.end(),
                       [](const auto& entry) { return entry.second.state == RegionState::Inside; });
}

std::optional<Date> RegionEngine::lastHeard(const BeaconRegion& region) const {
    std::optional<Date> latest;
    for (const auto& [key, heard] : beacons_) {
        if (region.contains(heard.frame.proximityUUID, heard.frame.major, heard.frame.minor) &&
            (!latest || heard.at > *latest)) {
            latest = heard.at;
        }
    }
    return latest;
}

RegionState RegionEngine::currentState(const BeaconRegion& region) const {
    if (const auto found = monitored_.find(region.identifier);
        found != monitored_.end() && found->second.region == region) {
        return found->second.state;
    }
    const auto heard = lastHeard(region);
    return heard && queue_->now() - *heard < options_.exitTimeout ? RegionState::Inside
                                                                  : RegionState::Unknown;
}

void RegionEngine::hear(const HeardAdvertisement& advertisement, const std::optional<IBeaconFrame>& frame) {
    const auto now = queue_->now();
    // Beacon hardware is what discovery lists: a device that tells its unique id, or sends iBeacon frames.
    // Phones and headphones passing by are neither.
    if (frame || advertisement.uniqueID) {
        const std::string_view key = advertisement.uniqueID ? *advertisement.uniqueID : advertisement.address;
        auto found = devices_.find(key);
        if (found == devices_.end()) {
            found = devices_.emplace(std::string(key), Device{}).first;
            found->second.told.uniqueID = found->first;
        }
        auto& device = found->second;
        device.told.transmissionPower = advertisement.transmissionPower;
        device.told.firmwareVersion = advertisement.firmwareVersion;
        device.told.batteryLevel = advertisement.batteryLevel;
        device.told.rssi = advertisement.rssi;
        device.at = now;
    }
    scheduleTick();
    if (!frame) return;
    ++beaconAdvertisements_;
    beacons_.insert_or_assign(BeaconKey(*frame), Heard{*frame, now, advertisement.rssi});
    std::vector<std::string> entered;
    for (auto& [identifier, watched] : monitored_) {
        if (!watched.region.contains(frame->proximityUUID, frame->major, frame->minor)) continue;
        watched.lastHeard = now;
        if (watched.state != RegionState::Inside) entered.push_back(identifier);
    }
    // Delegates may change the monitored regions: look each one up again before reporting.
    for (const auto& identifier : entered) {
        if (auto found = monitored_.find(identifier); found != monitored_.end()) {
            transition(found->second, RegionState::Inside);
        }
    }
}

void RegionEngine::transition(Watched& watched, RegionState to) {
    watched.state = to;
    watched.entryOwed = false;
    const auto region = watched.region;  // the callbacks may remove the entry
    if (monitor_ == nullptr) return;
    const auto delegate = monitor_->delegate.lock();
    if (!delegate) return;
    delegate->didDetermineState(to, region);
    if (to == RegionState::Inside && region.notifyOnEntry) delegate->didEnterRegion(region);
    if (to == RegionState::Outside && region.notifyOnExit) delegate->didExitRegion(region);
}

void RegionEngine::payEntry(const BeaconRegion& region) {
    const auto found = monitored_.find(region.identifier);
    if (found == monitored_.end() || !(found->second.region == region) || !found->second.entryOwed) return;
    found->second.entryOwed = false;
    if (monitor_ == nullptr) return;
    if (const auto delegate = monitor_->delegate.lock()) delegate->didEnterRegion(region);
}

void RegionEngine::tick() {
    const auto now = queue_->now();
    // Entries owed to regions whose state nobody asked for.
    std::vector<BeaconRegion> owed;
    for (const auto& [identifier, watched] : monitored_) {
        if (watched.entryOwed) owed.push_back(watched.region);
    }
    for (const auto& region : owed) payEntry(region);
    std::vector<std::string> left;
    for (const auto& [identifier, watched] : monitored_) {
        if (watched.state == RegionState::Inside && now - watched.lastHeard >= options_.exitTimeout) {
            left.push_back(identifier);
        }
    }
    for (const auto& identifier : left) {
        if (auto found = monitored_.find(identifier); found != monitored_.end()) {
            transition(found->second, RegionState::Outside);
        }
    }
    reportRanging(now);
    if (scanner_ && scanner_->discovering && now >= scanner_->nextReport) {
        scanner_->nextReport = now + scanner_->interval;
        reportDevices();
    }
    // Forget what is too old to matter to anyone. Discovery reports the devices of its last interval only,
    // so a crowd of passing phones is held for seconds, not for as long as the recording.
    const auto horizon = std::max(options_.exitTimeout, std::chrono::milliseconds(std::chrono::seconds(60)));
    std::erase_if(beacons_, [&](const auto& entry) { return now - entry.second.at > horizon; });
    const auto deviceHorizon =
        std::max(options_.rangingPeriod, scanner_ ? scanner_->interval : options_.rangingPeriod);
    std::erase_if(devices_, [&](const auto& entry) { return now - entry.second.at > deviceHorizon; });
}

void RegionEngine::reportRanging(Date now) {
    if (ranged_.empty() || monitor_ == nullptr) return;
    const auto regions = ranged_;  // the callbacks may change what is ranged
    for (const auto& [identifier, region] : regions) {
        std::vector<RangedBeacon> heard;
        for (const auto& [key, beacon] : beacons_) {
            if (now - beacon.at <= options_.rangingPeriod &&
                region.contains(beacon.frame.proximityUUID, beacon.frame.major, beacon.frame.minor)) {
                heard.push_back(
                    {beacon.frame.proximityUUID, beacon.frame.major, beacon.frame.minor, beacon.rssi, -1});
            }
        }
        // Strongest first; equal signals in a fixed order, so a run repeats exactly.
        std::stable_sort(heard.begin(), heard.end(),
                         [](const auto& a, const auto& b) { return a.rssi > b.rssi; });
        if (monitor_ == nullptr) return;
        if (auto delegate = monitor_->delegate.lock()) delegate->didRangeBeacons(heard, region);
    }
}

void RegionEngine::reportDevices() {
    const auto delegate = scanner_->delegate.lock();
    if (!delegate) return;
    const auto since = queue_->now() - scanner_->interval;
    std::vector<NearbyDevice> devices;
    for (const auto& [key, device] : devices_) {
        // A device that tells no unique id (any but the vendor's own beacons, and every recorded one) is
        // known by its address, which on this platform names the radio it came from.
        if (device.at >= since) devices.push_back(device.told);
    }
    delegate->didDiscoverDevices(devices);
}

}  // namespace pelm::platform
