#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <thread>

#include <pelm/platform/device_status_sources.hpp>
#include <pelm/platform/main_queue.hpp>
#include <pelm/platform/observer_list.hpp>

namespace pelm::platform {

/// The Bluetooth state from the kernel: no controller under /sys/class/bluetooth is unsupported (2); a
/// controller blocked by rfkill (soft or hard) is off (4); otherwise the controller's up flag decides between
/// on (5) and off (4). Unknown (0) until first looked at, which happens at once on a thread of its own
/// started by the first question; then looked at again every `interval`. Changes reach observers on the main
/// queue.
class LinuxBluetooth : public BluetoothState {
  public:
    LinuxBluetooth(std::shared_ptr<MainQueue> mainQueue,
                   std::chrono::milliseconds interval = std::chrono::seconds(2),
                   std::filesystem::path sysfs = "/sys/class");
    ~LinuxBluetooth() override;

    int state() const override;
    std::shared_ptr<void> observe(std::function<void(int)> onChange) override;

    /// One look at the machine, as described above.
    static int probe(const std::filesystem::path& sysfs);

  private:
    void startWatching() const;
    void watch() const;

    std::shared_ptr<MainQueue> mainQueue_;
    std::chrono::milliseconds interval_;
    std::filesystem::path sysfs_;
    mutable std::atomic<int> state_{0};
    std::shared_ptr<ObserverList<int>> observers_ = std::make_shared<ObserverList<int>>();
    mutable std::once_flag started_;
    mutable int wake_ = -1;
    mutable std::thread thread_;
};

/// Location use on a machine without a permission prompt: the status the host grants, reported as it is.
class PolicyLocation : public LocationAuthorization {
  public:
    explicit PolicyLocation(int grantedStatus) : status_(grantedStatus) {}
    int authorizationStatus() const override { return status_; }
    void requestAlwaysAuthorization() override {}
    std::shared_ptr<void> observe(std::function<void(int)> onChange) override {
        return observers_.add(std::move(onChange));
    }

  private:
    int status_;
    ObserverList<int> observers_;
};

}  // namespace pelm::platform
