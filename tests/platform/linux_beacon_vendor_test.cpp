// The Linux beacon vendor against a stand-in for BlueZ on a private D-Bus daemon.
#include <pelm/platform/linux/linux_beacon_vendor.hpp>
#include <pelm/platform/sim/simulated_store.hpp>

#include <gmock/gmock.h>
#include <sdbus-c++/sdbus-c++.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "support/test_platform.hpp"

namespace pelm::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kObjectManager = "org.freedesktop.DBus.ObjectManager";
constexpr const char* kAdapter = "org.bluez.Adapter1";
constexpr const char* kDevice = "org.bluez.Device1";
const ProximityUUID kUuid = *ProximityUUID::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");

using Properties = std::map<std::string, sdbus::Variant>;

// A dbus-daemon of the test's own, gone with the object.
class PrivateBus {
  public:
    PrivateBus() {
        int pipeFds[2];
        if (::pipe(pipeFds) != 0) return;
        ::posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
        char program[] = "dbus-daemon";
        char session[] = "--session";
        char nofork[] = "--nofork";
        char print[] = "--print-address=1";
        char* argv[] = {program, session, nofork, print, nullptr};
        if (::posix_spawnp(&pid_, program, &actions, nullptr, argv, environ) != 0) pid_ = 0;
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(pipeFds[1]);
        FILE* out = ::fdopen(pipeFds[0], "r");
        char line[512] = {};
        if (pid_ > 0 && std::fgets(line, sizeof line, out) != nullptr) {
            address = std::string(line, std::strcspn(line, "\n"));
        }
        std::fclose(out);
    }
    ~PrivateBus() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGTERM);
        ::waitpid(pid_, nullptr, 0);
    }
    std::string address;

  private:
    pid_t pid_ = 0;
};

// What BlueZ shows of one adapter: the calls made on it are kept, StartDiscovery can be refused, and devices
// can be made to appear and change.
class FakeBluez {
  public:
    explicit FakeBluez(const std::string& busAddress)
        : connection_(sdbus::createSessionBusConnectionWithAddress(busAddress)) {
        connection_->requestName("org.bluez");
        // The bus library answers GetManagedObjects itself, listing every object below with an interface.
        root_ = sdbus::createObject(*connection_, "/");
        root_->addObjectManager();
        adapter_ = sdbus::createObject(*connection_, "/org/bluez/hci0");
        adapter_->registerMethod("SetDiscoveryFilter")
            .onInterface(kAdapter)
            .implementedAs([this](const Properties& filter) {
                record("filter Transport=" + filter.at("Transport").get<std::string>() +
                       " DuplicateData=" + std::to_string(filter.at("DuplicateData").get<bool>()));
            });
        adapter_->registerMethod("StartDiscovery").onInterface(kAdapter).implementedAs([this] {
            if (refuse) throw sdbus::Error("org.bluez.Error.NotReady", "Resource Not Ready");
            record("start");
        });
        adapter_->registerMethod("StopDiscovery").onInterface(kAdapter).implementedAs([this] {
            record("stop");
        });
        adapter_->finishRegistration();
        connection_->enterEventLoopAsync();
    }
    ~FakeBluez() { connection_->leaveEventLoop(); }

    void appears(const std::string& path, Properties device) {
        std::map<std::string, Properties> interfaces{{kDevice, std::move(device)}};
        root_->emitSignal("InterfacesAdded")
            .onInterface(kObjectManager)
            .withArguments(sdbus::ObjectPath(path), interfaces);
    }
    void changes(const std::string& path, const Properties& changed) {
        sdbus::createObject(*connection_, path)
            ->emitSignal("PropertiesChanged")
            .onInterface("org.freedesktop.DBus.Properties")
            .withArguments(std::string(kDevice), changed, std::vector<std::string>{});
    }
    std::vector<std::string> calls() {
        std::lock_guard lock(mutex_);
        return calls_;
    }

    std::atomic<bool> refuse{false};

  private:
    void record(std::string call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }

    std::unique_ptr<sdbus::IConnection> connection_;
    std::unique_ptr<sdbus::IObject> root_;
    std::unique_ptr<sdbus::IObject> adapter_;
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

Properties beacon(const std::string& address, std::int16_t rssi, std::uint16_t minor) {
    Scenario::Beacon b;
    b.uuid = kUuid;
    b.major = 1;
    b.minor = minor;
    // BlueZ gives the manufacturer data without its length, type and company: strip those four bytes.
    const auto full = SimulatedStore::advertisingData(b);
    const std::vector<std::uint8_t> payload(full.end() - 23, full.end());
    std::map<std::uint16_t, sdbus::Variant> byCompany{{0x004C, sdbus::Variant(payload)}};
    return {{"Address", sdbus::Variant(address)},
            {"RSSI", sdbus::Variant(rssi)},
            {"ManufacturerData", sdbus::Variant(byCompany)}};
}

struct Recorder : RegionMonitorDelegate, DeviceScannerDelegate {
    std::vector<std::string> events;
    void didChangeLocationAuthorizationStatus(AuthorizationStatus) override {}
    void didDetermineState(RegionState, const BeaconRegion&) override {}
    void didEnterRegion(const BeaconRegion& region) override {
        events.push_back("enter " + region.identifier);
    }
    void didExitRegion(const BeaconRegion& region) override { events.push_back("exit " + region.identifier); }
    void didRangeBeacons(const std::vector<RangedBeacon>&, const BeaconRegion&) override {}
    void didDiscoverDevices(const std::optional<std::vector<NearbyDevice>>& devices) override {
        std::string text = "devices";
        for (const auto& d : devices.value_or(std::vector<NearbyDevice>{})) {
            text += " " + d.uniqueID.value_or("?") + "@" + std::to_string(d.rssi);
        }
        events.push_back(text);
    }
    void didFailToStartDiscovery(const std::optional<std::string>& error) override {
        events.push_back("failed " + error.value_or("?"));
    }
};

class LinuxBeaconVendorTest : public ::testing::Test {
  protected:
    // The D-Bus thread hands over to the main queue; give it time to, without ever assuming how much.
    template <class Done>
    void runUntil(Done done) {
        for (int i = 0; i < 1000 && !done(); ++i) {
            std::this_thread::sleep_for(10ms);
            platform_.loop->runUntilIdle();
        }
    }
    BluezOptions options() const { return {bus_.address, 2s}; }

    pelm::testing::TestPlatform platform_;
    PrivateBus bus_;
    std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
};

TEST_F(LinuxBeaconVendorTest, WhatBlueZHearsEntersRegionsAndShowsInDiscovery) {
    ASSERT_FALSE(bus_.address.empty());
    FakeBluez bluez(bus_.address);
    auto vendor = LinuxBeaconVendor::make(platform_.loop, options());
    ASSERT_TRUE(vendor);
    EXPECT_THAT(bluez.calls(), IsEmpty());  // the radio is left alone until beacons are wanted

    auto monitor = vendor->makeRegionMonitor(recorder_);
    EXPECT_THAT(bluez.calls(), ElementsAre("filter Transport=le DuplicateData=1", "start"));
    monitor->startMonitoring({kUuid, std::nullopt, std::nullopt, "store", true, true, true});
    auto scanner = vendor->makeDeviceScanner(recorder_);
    scanner->startDiscovery(1.0);

    // Data of the wrong shape, then a headset: neither is a beacon, and neither stops what follows.
    bluez.appears("/org/bluez/hci0/dev_1", {{"RSSI", sdbus::Variant(std::string("loud"))},
                                            {"ManufacturerData", sdbus::Variant(std::string("junk"))}});
    std::map<std::uint16_t, sdbus::Variant> headset{
        {0x0006, sdbus::Variant(std::vector<std::uint8_t>{1, 2})}};
    bluez.appears("/org/bluez/hci0/dev_2", {{"Address", sdbus::Variant(std::string("AA:00:00:00:00:02"))},
                                            {"RSSI", sdbus::Variant(std::int16_t{-40})},
                                            {"ManufacturerData", sdbus::Variant(headset)}});
    bluez.appears("/org/bluez/hci0/dev_3", beacon("AA:00:00:00:00:03", -70, 3));
    runUntil([&] { return !recorder_->events.empty(); });
    EXPECT_THAT(recorder_->events, ElementsAre("enter store"));
    recorder_->events.clear();

    // A beacon at rest: only its signal strength changes, and that alone counts as hearing it. The
    // D-Bus thread hands over in order, so once the next beacon has entered its region, the change is in.
    monitor->startMonitoring({kUuid, 1, 9, "shelf", true, true, true});
    bluez.changes("/org/bluez/hci0/dev_3", {{"RSSI", sdbus::Variant(std::int16_t{-55})}});
    bluez.appears("/org/bluez/hci0/dev_9", beacon("AA:00:00:00:00:09", -80, 9));
    runUntil([&] { return !recorder_->events.empty(); });
    EXPECT_THAT(recorder_->events, ElementsAre("enter shelf"));
    recorder_->events.clear();
    platform_.loop->advance(1s);
    EXPECT_THAT(recorder_->events, ElementsAre("devices AA:00:00:00:00:03@-55 AA:00:00:00:00:09@-80"));

    scanner.reset();
    monitor.reset();
    vendor.reset();
    EXPECT_THAT(bluez.calls(), ElementsAre("filter Transport=le DuplicateData=1", "start", "stop"));
}

TEST_F(LinuxBeaconVendorTest, NoAdapterMeansNoVendorAndARefusedStartIsReported) {
    ASSERT_FALSE(bus_.address.empty());
    EXPECT_EQ(LinuxBeaconVendor::make(platform_.loop, options()), nullptr);  // nobody owns org.bluez
    EXPECT_EQ(LinuxBeaconVendor::make(platform_.loop, {"unix:path=/nonexistent/bus", 2s}), nullptr);

    FakeBluez bluez(bus_.address);
    bluez.refuse = true;
    auto vendor = LinuxBeaconVendor::make(platform_.loop, options());
    ASSERT_TRUE(vendor);
    auto monitor = vendor->makeRegionMonitor(recorder_);
    EXPECT_THAT(platform_.lines(), ElementsAre("[PELM][ERROR] Unable to start Bluetooth discovery: "
                                               "org.bluez.Error.NotReady: Resource Not Ready"));
    auto scanner = vendor->makeDeviceScanner(recorder_);
    scanner->startDiscovery();
    platform_.loop->runUntilIdle();
    EXPECT_THAT(recorder_->events, ElementsAre("failed org.bluez.Error.NotReady: Resource Not Ready"));
    EXPECT_FALSE(scanner->isDiscovering());

    bluez.refuse = false;  // the adapter came up: the next start goes through
    scanner->startDiscovery();
    EXPECT_TRUE(scanner->isDiscovering());
    EXPECT_THAT(bluez.calls(), ElementsAre("filter Transport=le DuplicateData=1",
                                           "filter Transport=le "
                                           "DuplicateData=1",
                                           "filter Transport=le DuplicateData=1", "start"));
}

}  // namespace
}  // namespace pelm::platform
