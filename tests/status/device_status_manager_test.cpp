#include <pelm/platform/linux/linux_reachability.hpp>
#include <pelm/sdk/settings_manager.hpp>
#include <pelm/status/pelm_device_status_manager.hpp>

#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "support/test_platform.hpp"

namespace pelm {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class RecordingStatusDelegate : public PelmDeviceStatusManagerDelegate {
  public:
    void didChangeReachableStatus(ReachableStatus s) override {
        events.push_back(s == ReachableStatus::Reachable     ? "reachable"
                         : s == ReachableStatus::UnReachable ? "unreachable"
                                                             : "unknown");
    }
    void didChangeLocationStatus(LocationStatus s) override {
        events.push_back("location " + std::to_string(static_cast<int>(s)));
    }
    void didChangeBluetoothStatus(BluetoothStatus s) override {
        events.push_back("bluetooth " + std::to_string(static_cast<int>(s)));
    }
    std::vector<std::string> events;
};

class DeviceStatusTest : public ::testing::Test {
  protected:
    void SetUp() override { SettingsManager::sharedInstance()->setApiHost("content.example:8443"); }
    std::shared_ptr<PelmDeviceStatusManager> make() {
        auto manager = PelmDeviceStatusManager::make();
        manager->delegate = delegate_;
        return manager;
    }
    testing::TestPlatform platform_;
    std::shared_ptr<RecordingStatusDelegate> delegate_ = std::make_shared<RecordingStatusDelegate>();
};

TEST(StatusMapping, EveryPlatformValueHasItsStatus) {
    EXPECT_EQ(locationStatusFrom(0), LocationStatus::Unknown);
    EXPECT_EQ(locationStatusFrom(1), LocationStatus::NotAllowed);
    EXPECT_EQ(locationStatusFrom(2), LocationStatus::NotAllowed);
    EXPECT_EQ(locationStatusFrom(3), LocationStatus::AlwaysAllowed);
    EXPECT_EQ(locationStatusFrom(4), LocationStatus::WhenInUseAllowed);
    EXPECT_EQ(locationStatusFrom(-1), LocationStatus::NotAllowed);
    EXPECT_EQ(locationStatusFrom(5), LocationStatus::NotAllowed);
    EXPECT_EQ(bluetoothStatusFrom(0), BluetoothStatus::Unknown);
    for (int state : {1, 2, 3, 6, -1}) EXPECT_EQ(bluetoothStatusFrom(state), BluetoothStatus::Error) << state;
    EXPECT_EQ(bluetoothStatusFrom(4), BluetoothStatus::Off);
    EXPECT_EQ(bluetoothStatusFrom(5), BluetoothStatus::On);
}

TEST_F(DeviceStatusTest, LocationAndBluetoothReportAtOnceAndOnEveryChange) {
    const auto manager = make();
    platform_.location->change(2);  // not started yet: silent
    EXPECT_THAT(delegate_->events, IsEmpty());
    manager->startLocationNotifier();
    manager->startLocationNotifier();  // reports again even though nothing changed
    platform_.location->change(3);
    manager->requestAlwaysLocationAuthorization();
    EXPECT_EQ(platform_.location->requests, 1);
    manager->startBluetoothNotifier();
    platform_.bluetooth->change(5);
    platform_.bluetooth->change(4);
    EXPECT_THAT(delegate_->events, ElementsAre("location 2", "location 2", "location 0", "bluetooth 3",
                                               "bluetooth 0", "bluetooth 1"));
}

TEST_F(DeviceStatusTest, AChangeQueuedBeforeTheNotifierStartedIsNotToldTwice) {
    const auto manager = make();
    // The platform saw Bluetooth come on and queued the news; the host starts the notifier before the queue
    // delivers it, and is told the state at once.
    const int posted = platform_.bluetooth->value = 5;
    manager->startBluetoothNotifier();
    platform_.bluetooth->change(posted);
    platform_.bluetooth->change(4);
    platform_.bluetooth->change(4);
    manager->startBluetoothNotifier();  // asked again: told again
    EXPECT_THAT(delegate_->events, ElementsAre("bluetooth 0", "bluetooth 1", "bluetooth 1"));
}

TEST_F(DeviceStatusTest, ReachabilityReportsTheWatchersAnswerOnTheMainQueue) {
    const auto manager = make();
    EXPECT_EQ(platform_.reachability->lastHost, "content.example:8443");
    manager->startReachabilityNotifier();
    auto* watcher = platform_.reachability->watcher();
    ASSERT_NE(watcher, nullptr);
    watcher->fire(false);                       // the unreachable callback, while the host is reachable again
    EXPECT_THAT(delegate_->events, IsEmpty());  // handed to the main queue, not run here
    platform_.loop->runUntilIdle();
    platform_.reachability->reachable = false;
    watcher->fire(true);
    platform_.loop->runUntilIdle();
    EXPECT_THAT(delegate_->events, ElementsAre("reachable", "unreachable"));
    manager->stopReachabilityNotifier();
    watcher->fire(true);
    platform_.loop->runUntilIdle();
    EXPECT_EQ(delegate_->events.size(), 2u);
    EXPECT_THAT(platform_.lines(), IsEmpty());
}

TEST_F(DeviceStatusTest, TheThreeFailuresAreLoggedAndReportNothing) {
    SettingsManager::sharedInstance()->setApiHost(std::nullopt);
    {
        testing::TestPlatform noHost;  // a fresh platform: the host snapshot is taken anew
        const auto manager = PelmDeviceStatusManager::make();
        manager->startReachabilityNotifier();
        manager->stopReachabilityNotifier();
        EXPECT_EQ(noHost.reachability->starts, 0);
        EXPECT_THAT(noHost.lines(), ElementsAre("[PELM][ERROR] API host not set."));
    }
    {
        testing::TestPlatform failing;
        SettingsManager::sharedInstance()->setApiHost("h");
        failing.reachability->makeFails = true;
        PelmDeviceStatusManager::make()->startReachabilityNotifier();
        EXPECT_THAT(failing.lines(), ElementsAre("[PELM][ERROR] Unable to create Reachability"));
    }
    testing::TestPlatform refusing;
    SettingsManager::sharedInstance()->setApiHost("h");
    refusing.reachability->startFails = true;
    auto manager = PelmDeviceStatusManager::make();
    manager->delegate = delegate_;
    manager->startReachabilityNotifier();
    refusing.reachability->watcher()->fire(true);
    refusing.loop->runUntilIdle();
    EXPECT_THAT(refusing.lines(), ElementsAre("[PELM][ERROR] Unable to start notifier"));
    EXPECT_THAT(delegate_->events, IsEmpty());
}

TEST_F(DeviceStatusTest, NothingArrivesAfterDestructionWhileCallbacksFireFromTheWatchersThread) {
    // The real watcher, re-evaluating every millisecond with an answer that flips each time: its callbacks
    // keep coming from its own thread while the manager is destroyed.
    std::atomic<int> flips{0};
    platform_.services->reachability =
        std::make_shared<platform::LinuxReachability>(std::chrono::milliseconds(1), [&](const std::string&) {
            return ++flips % 2 == 0 ? std::vector<std::string>{"127.0.0.1"} : std::vector<std::string>{};
        });
    auto manager = PelmDeviceStatusManager::make();
    manager->delegate = delegate_;
    manager->startReachabilityNotifier();
    manager->startBluetoothNotifier();
    while (flips < 50) std::this_thread::yield();
    platform_.loop->runUntilIdle();
    EXPECT_FALSE(delegate_->events.empty());
    delegate_->events.clear();
    manager.reset();  // stops the watcher first, then goes
    const int stoppedAt = flips;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(flips, stoppedAt);  // the watcher really stopped
    platform_.bluetooth->change(5);
    platform_.loop->runUntilIdle();  // blocks posted before destruction find the manager gone
    EXPECT_THAT(delegate_->events, IsEmpty());
}

}  // namespace
}  // namespace pelm
