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

#include "support/fake_bluez.hpp"
#include "support/test_platform.hpp"

namespace pelm::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using testing::beacon;
using testing::FakeBluez;
using testing::PrivateBus;
using Properties = testing::Properties;
const ProximityUUID kUuid = testing::kBluezUuid;

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
