#pragma once

#include <memory>
#include <optional>
#include <string>

#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/linux/bluez_advertisements.hpp>
#include <pelm/platform/region_monitor.hpp>

namespace pelm::platform {

/// Beacons on a Linux machine: the region engine, fed with what BlueZ hears. The radio is left alone until
/// the first region monitor or device scanner is made, and scans from then until the vendor goes.
class LinuxBeaconVendor final : public BeaconVendor, public std::enable_shared_from_this<LinuxBeaconVendor> {
  public:
    /// Nothing when BlueZ has no adapter to listen with.
    static std::shared_ptr<LinuxBeaconVendor> make(std::shared_ptr<MainQueue> mainQueue,
                                                   BluezOptions options = {},
                                                   RegionEngineOptions engineOptions = {});

    void setAPIKey(const std::string& key) override { engine_->setAPIKey(key); }
    std::unique_ptr<RegionMonitor> makeRegionMonitor(std::weak_ptr<RegionMonitorDelegate> delegate) override;
    std::unique_ptr<DeviceScanner> makeDeviceScanner(std::weak_ptr<DeviceScannerDelegate> delegate) override;

    LinuxBeaconVendor(std::shared_ptr<MainQueue> mainQueue, BluezOptions options, std::string adapter,
                      RegionEngineOptions engineOptions);

  private:
    class Scanner;

    /// Starts BlueZ discovery unless it runs already; BlueZ's reason when it cannot.
    std::optional<std::string> listen();

    std::shared_ptr<MainQueue> queue_;
    BluezOptions options_;
    std::string adapter_;
    std::shared_ptr<RegionEngine> engine_;
    std::unique_ptr<BluezAdvertisements> radio_;
};

}  // namespace pelm::platform
