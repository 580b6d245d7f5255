#include <pelm/testing/scripted_beacon_vendor.hpp>

#include <cstdio>

namespace pelm::testing {

std::string ScriptedBeaconVendor::describe(const platform::BeaconRegion& region) {
    std::string text = region.identifier + " " + region.proximityUUID.uuidString();
    // Appended piece by piece: GCC 12 at -O3 misreads `" " + std::to_string(n)` as an overlapping copy.
    for (const auto& number : {region.major, region.minor}) {
        if (!number) continue;
        text += ' ';
        text += std::to_string(*number);
    }
    std::string flags;
    for (const auto& [set, name] :
         {std::pair{region.notifyOnEntry, "entry"}, std::pair{region.notifyOnExit, "exit"},
          std::pair{region.notifyEntryStateOnDisplay, "display"}}) {
        if (!set) continue;
        if (!flags.empty()) flags += ',';
        flags += name;
    }
    return text + " [" + flags + "]";
}

class ScriptedBeaconVendor::Monitor final : public platform::RegionMonitor {
  public:
    explicit Monitor(ScriptedBeaconVendor& vendor) : vendor_(vendor) {}
    void requestLocationAlwaysAuthorization() override { note("requestLocationAlwaysAuthorization"); }
    std::vector<platform::BeaconRegion> monitoredRegions() const override {
        note("monitoredRegions");
        return values(vendor_.monitored);
    }
    std::vector<platform::BeaconRegion> rangedRegions() const override {
        note("rangedRegions");
        return values(vendor_.ranged);
    }
    void stopMonitoringForAllRegions() override {
        note("stopMonitoringForAllRegions");
        vendor_.monitored.clear();
    }
    void stopRangingBeaconsInAllRegions() override {
        note("stopRangingBeaconsInAllRegions");
        vendor_.ranged.clear();
    }
    void startMonitoring(const platform::BeaconRegion& region) override {
        note("startMonitoring " + describe(region));
        vendor_.monitored.insert_or_assign(region.identifier, region);
    }
    void stopMonitoring(const platform::BeaconRegion& region) override {
        note("stopMonitoring " + describe(region));
        vendor_.monitored.erase(region.identifier);
    }
    void requestState(const platform::BeaconRegion& region) override {
        note("requestState " + describe(region));
    }
    void startRanging(const platform::BeaconRegion& region) override {
        note("startRanging " + describe(region));
        vendor_.ranged.insert_or_assign(region.identifier, region);
    }
    void stopRanging(const platform::BeaconRegion& region) override {
        note("stopRanging " + describe(region));
        vendor_.ranged.erase(region.identifier);
    }

  private:
    static std::vector<platform::BeaconRegion> values(
        const std::map<std::string, platform::BeaconRegion>& regions) {
        std::vector<platform::BeaconRegion> list;
        for (const auto& [identifier, region] : regions) list.push_back(region);
        return list;
    }
    void note(std::string call) const { vendor_.calls.push_back(std::move(call)); }
    ScriptedBeaconVendor& vendor_;
};

class ScriptedBeaconVendor::Scanner final : public platform::DeviceScanner {
  public:
    explicit Scanner(ScriptedBeaconVendor& vendor) : vendor_(vendor) {}
    bool isDiscovering() const override {
        vendor_.calls.push_back("isDiscovering");
        return vendor_.discovering;
    }
    void startDiscovery(double intervalSeconds) override {
        char text[64];
        std::snprintf(text, sizeof text, "startDiscovery %.1f", intervalSeconds);
        vendor_.calls.push_back(text);
        vendor_.discovering = true;
    }
    void startDiscovery() override {
        vendor_.calls.push_back("startDiscovery");
        vendor_.discovering = true;
    }
    void stopDiscovery() override {
        vendor_.calls.push_back("stopDiscovery");
        vendor_.discovering = false;
    }

  private:
    ScriptedBeaconVendor& vendor_;
};

std::unique_ptr<platform::RegionMonitor> ScriptedBeaconVendor::makeRegionMonitor(
    std::weak_ptr<platform::RegionMonitorDelegate> delegate) {
    calls.push_back("makeRegionMonitor");
    monitorDelegate_ = std::move(delegate);
    return std::make_unique<Monitor>(*this);
}

std::unique_ptr<platform::DeviceScanner> ScriptedBeaconVendor::makeDeviceScanner(
    std::weak_ptr<platform::DeviceScannerDelegate> delegate) {
    calls.push_back("makeDeviceScanner");
    scannerDelegate_ = std::move(delegate);
    return std::make_unique<Scanner>(*this);
}

void ScriptedBeaconVendor::authorize(platform::AuthorizationStatus status) {
    if (auto delegate = monitorDelegate_.lock()) delegate->didChangeLocationAuthorizationStatus(status);
}
void ScriptedBeaconVendor::determine(platform::RegionState state, const platform::BeaconRegion& region) {
    if (auto delegate = monitorDelegate_.lock()) delegate->didDetermineState(state, region);
}
void ScriptedBeaconVendor::enter(const platform::BeaconRegion& region) {
    if (auto delegate = monitorDelegate_.lock()) delegate->didEnterRegion(region);
}
void ScriptedBeaconVendor::exit(const platform::BeaconRegion& region) {
    if (auto delegate = monitorDelegate_.lock()) delegate->didExitRegion(region);
}
void ScriptedBeaconVendor::range(const std::vector<platform::RangedBeacon>& beacons,
                                 const platform::BeaconRegion& region) {
    if (auto delegate = monitorDelegate_.lock()) delegate->didRangeBeacons(beacons, region);
}
void ScriptedBeaconVendor::discover(const std::optional<std::vector<platform::NearbyDevice>>& devices) {
    if (auto delegate = scannerDelegate_.lock()) delegate->didDiscoverDevices(devices);
}
void ScriptedBeaconVendor::failDiscovery(const std::optional<std::string>& error) {
    if (auto delegate = scannerDelegate_.lock()) delegate->didFailToStartDiscovery(error);
}

}  // namespace pelm::testing
