#include <pelm/platform/linux/linux_beacon_vendor.hpp>

#include <stdexcept>

#include <pelm/sdk/log.hpp>

namespace pelm::platform {

// The engine's scanner, which first makes sure the radio listens and says so when it cannot.
class LinuxBeaconVendor::Scanner final : public DeviceScanner {
  public:
    Scanner(std::shared_ptr<LinuxBeaconVendor> vendor, std::weak_ptr<DeviceScannerDelegate> delegate)
        : vendor_(std::move(vendor)),
          delegate_(delegate),
          inner_(vendor_->engine_->makeDeviceScanner(std::move(delegate))) {}

    bool isDiscovering() const override { return inner_->isDiscovering(); }
    void startDiscovery(double intervalSeconds) override {
        if (radioListens()) inner_->startDiscovery(intervalSeconds);
    }
    void startDiscovery() override {
        if (radioListens()) inner_->startDiscovery();
    }
    void stopDiscovery() override { inner_->stopDiscovery(); }

  private:
    bool radioListens() {
        const auto failure = vendor_->listen();
        if (!failure) return true;
        vendor_->queue_->post([delegate = delegate_, failure] {
            if (auto d = delegate.lock()) d->didFailToStartDiscovery(failure);
        });
        return false;
    }

    std::shared_ptr<LinuxBeaconVendor> vendor_;
    std::weak_ptr<DeviceScannerDelegate> delegate_;
    std::unique_ptr<DeviceScanner> inner_;
};

std::shared_ptr<LinuxBeaconVendor> LinuxBeaconVendor::make(std::shared_ptr<MainQueue> mainQueue,
                                                           BluezOptions options,
                                                           RegionEngineOptions engineOptions) {
    auto adapter = BluezAdvertisements::findAdapter(options);
    if (!adapter) return nullptr;
    return std::make_shared<LinuxBeaconVendor>(std::move(mainQueue), std::move(options), std::move(*adapter),
                                               engineOptions);
}

LinuxBeaconVendor::LinuxBeaconVendor(std::shared_ptr<MainQueue> mainQueue, BluezOptions options,
                                     std::string adapter, RegionEngineOptions engineOptions)
    : queue_(std::move(mainQueue)),
      options_(std::move(options)),
      adapter_(std::move(adapter)),
      engine_(std::make_shared<RegionEngine>(queue_, engineOptions)) {}

std::unique_ptr<RegionMonitor> LinuxBeaconVendor::makeRegionMonitor(
    std::weak_ptr<RegionMonitorDelegate> delegate) {
    if (const auto failure = listen()) {
        Log::error([&] { return "Unable to start Bluetooth discovery: " + *failure; });
    }
    return engine_->makeRegionMonitor(std::move(delegate));
}

std::unique_ptr<DeviceScanner> LinuxBeaconVendor::makeDeviceScanner(
    std::weak_ptr<DeviceScannerDelegate> delegate) {
    return std::make_unique<Scanner>(shared_from_this(), std::move(delegate));
}

std::optional<std::string> LinuxBeaconVendor::listen() {
    if (radio_) return std::nullopt;
    // The radio's thread hands each advertisement to the main queue; the engine is touched only there.
    auto sink = [queue = queue_, engine = std::weak_ptr(engine_)](HeardAdvertisement advertisement) {
        queue->post([engine, advertisement = std::move(advertisement)] {
            if (auto e = engine.lock()) e->hear(advertisement);
        });
    };
    try {
        radio_ = std::make_unique<BluezAdvertisements>(options_, adapter_, std::move(sink));
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return std::nullopt;
}

}  // namespace pelm::platform
