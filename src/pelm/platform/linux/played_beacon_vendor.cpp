#include <pelm/platform/linux/played_beacon_vendor.hpp>

#include <optional>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/recording_reader.hpp>
#include <pelm/platform/linux/bounded_file.hpp>
#include <pelm/platform/sim/simulated_store.hpp>
#include <pelm/sdk/log.hpp>

namespace pelm::platform {

std::shared_ptr<PlayedBeaconVendor> PlayedBeaconVendor::scenario(std::shared_ptr<MainQueue> mainQueue,
                                                                 const std::filesystem::path& file) {
    const auto read = readJSONFile(file);
    if (!read.json) throw ScenarioError(read.error);
    auto store = std::make_shared<SimulatedStore>(Scenario::fromJSON(*read.json), 1);
    const auto duration = store->scenario().duration();
    return std::make_shared<PlayedBeaconVendor>(
        std::move(mainQueue), [store, duration](std::chrono::milliseconds elapsed, RegionEngine& engine) {
            store->advertiseUntil(elapsed, engine);
            return elapsed < duration;
        });
}

std::shared_ptr<PlayedBeaconVendor> PlayedBeaconVendor::recording(std::shared_ptr<MainQueue> mainQueue,
                                                                  const std::filesystem::path& file) {
    std::shared_ptr<RecordingReader> reader = RecordingReader::open(file);
    // The first advertisement is read now, so that a file that is no recording fails here, not later.
    auto pending = std::make_shared<std::optional<HeardAdvertisement>>(reader->next());
    const Date first = *pending ? (*pending)->at : Date{};
    return std::make_shared<PlayedBeaconVendor>(
        std::move(mainQueue),
        [reader, pending, first](std::chrono::milliseconds elapsed, RegionEngine& engine) {
            try {
                while (*pending && (*pending)->at - first <= elapsed) {
                    engine.hear(**pending);
                    *pending = reader->next();
                }
            } catch (const RecordingError& error) {
                Log::error([&] { return std::string("Recording ends early: ") + error.what(); });
                pending->reset();
            }
            return pending->has_value();
        });
}

PlayedBeaconVendor::PlayedBeaconVendor(std::shared_ptr<MainQueue> mainQueue, Feed feed)
    : queue_(std::move(mainQueue)), engine_(std::make_shared<RegionEngine>(queue_)), feed_(std::move(feed)) {}

std::unique_ptr<RegionMonitor> PlayedBeaconVendor::makeRegionMonitor(
    std::weak_ptr<RegionMonitorDelegate> delegate) {
    start();
    return engine_->makeRegionMonitor(std::move(delegate));
}

std::unique_ptr<DeviceScanner> PlayedBeaconVendor::makeDeviceScanner(
    std::weak_ptr<DeviceScannerDelegate> delegate) {
    start();
    return engine_->makeDeviceScanner(std::move(delegate));
}

void PlayedBeaconVendor::start() {
    if (started_) return;
    started_ = true;
    startedAt_ = queue_->now();
    // On the queue, after the monitor being made now is handed to its owner.
    queue_->post([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->step();
    });
}

void PlayedBeaconVendor::step() {
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(queue_->now() - startedAt_);
    if (!feed_(elapsed, *engine_)) return;  // the end of the file: radio silence from here on
    queue_->postAfter(kStep, [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->step();
    });
}

}  // namespace pelm::platform
