#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>

#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/region_monitor.hpp>

namespace pelm::platform {

/// Beacons from a file instead of the radio, so that a host app can be tried in a store that does not exist
/// yet: a scenario's simulated shopper, or a recording of a real walk, played in real time on the main queue
/// into the same region engine the radio would feed. Playback starts when the first region monitor or device
/// scanner is made, as listening would, and plays once.
class PlayedBeaconVendor final : public BeaconVendor,
                                 public std::enable_shared_from_this<PlayedBeaconVendor> {
  public:
    /// Hands the engine everything sent up to `elapsed` after the start; false once nothing is left.
    using Feed = std::function<bool(std::chrono::milliseconds elapsed, RegionEngine& engine)>;

    /// A scenario file (the simulator's JSON form). Throws ScenarioError naming what is wrong with it.
    static std::shared_ptr<PlayedBeaconVendor> scenario(std::shared_ptr<MainQueue> mainQueue,
                                                        const std::filesystem::path& file);
    /// A recording (btsnoop, pcap, pcapng or the JSON trace), its advertisements at their recorded spacing.
    /// Throws RecordingError for a file that is not one.
    static std::shared_ptr<PlayedBeaconVendor> recording(std::shared_ptr<MainQueue> mainQueue,
                                                         const std::filesystem::path& file);

    PlayedBeaconVendor(std::shared_ptr<MainQueue> mainQueue, Feed feed);

    void setAPIKey(const std::string& key) override { engine_->setAPIKey(key); }
    std::unique_ptr<RegionMonitor> makeRegionMonitor(std::weak_ptr<RegionMonitorDelegate> delegate) override;
    std::unique_ptr<DeviceScanner> makeDeviceScanner(std::weak_ptr<DeviceScannerDelegate> delegate) override;

    /// How often the file is read ahead to the clock.
    static constexpr std::chrono::milliseconds kStep{100};

  private:
    void start();
    void step();

    std::shared_ptr<MainQueue> queue_;
    std::shared_ptr<RegionEngine> engine_;
    Feed feed_;
    Date startedAt_{};
    bool started_ = false;
};

}  // namespace pelm::platform
