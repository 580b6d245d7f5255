// The region engine in virtual time, with a recording delegate in place of the beacon manager.
#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/sim/simulated_store.hpp>

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

#include "support/test_platform.hpp"

namespace pelm::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const ProximityUUID kUuid = *ProximityUUID::parse("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");

struct Recorder : RegionMonitorDelegate {
    std::vector<std::string> events;
    void didChangeLocationAuthorizationStatus(AuthorizationStatus status) override {
        events.push_back("authorization " + std::to_string(status));
    }
    void didDetermineState(RegionState state, const BeaconRegion& region) override {
        events.push_back("state " + std::to_string(static_cast<int>(state)) + " " + region.identifier);
    }
    void didEnterRegion(const BeaconRegion& region) override {
        events.push_back("enter " + region.identifier);
    }
    void didExitRegion(const BeaconRegion& region) override { events.push_back("exit " + region.identifier); }
    void didRangeBeacons(const std::vector<RangedBeacon>& beacons, const BeaconRegion&) override {
        std::string text = "range";
        for (const auto& b : beacons) text += " " + std::to_string(b.minor) + "@" + std::to_string(b.rssi);
        events.push_back(text);
    }
    std::vector<std::string> take() { return std::exchange(events, {}); }
};

// How many devices each discovery report held.
struct Devices : DeviceScannerDelegate {
    std::vector<std::size_t> counts;
    void didDiscoverDevices(const std::optional<std::vector<NearbyDevice>>& devices) override {
        counts.push_back(devices ? devices->size() : 0);
    }
    void didFailToStartDiscovery(const std::optional<std::string>&) override {}
};

class RegionEngineTest : public ::testing::Test {
  protected:
    void SetUp() override { monitor_ = engine_->makeRegionMonitor(recorder_); }
    static BeaconRegion region(const std::string& id, std::optional<std::uint16_t> minor = std::nullopt) {
        BeaconRegion r{kUuid, minor ? std::optional<std::uint16_t>(1) : std::nullopt, minor, id, true, true,
                       true};
        return r;
    }
    void hear(std::uint16_t minor, int rssi, std::string sender = {}) {
        Scenario::Beacon beacon;
        beacon.uuid = kUuid;
        beacon.major = 1;
        beacon.minor = minor;
        engine_->hear({sender.empty() ? "addr-" + std::to_string(minor) : sender,
                       rssi,
                       SimulatedStore::advertisingData(beacon),
                       {},
                       {},
                       0,
                       0,
                       {},
                       {}});
    }
    pelm::testing::TestPlatform platform_;
    std::shared_ptr<RegionEngine> engine_ = std::make_shared<RegionEngine>(platform_.loop);
    std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
    std::unique_ptr<RegionMonitor> monitor_;
};

TEST_F(RegionEngineTest, EntryOnFirstAdvertisementExitAfterTheTimeoutAndNotBefore) {
    monitor_->startMonitoring(region("main"));
    hear(11, -60);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 main", "enter main"));
    hear(12, -70);
    platform_.loop->advance(29s);
    EXPECT_THAT(recorder_->take(), IsEmpty());
    hear(11, -60);  // heard again: the timeout starts over
    platform_.loop->advance(29s);
    EXPECT_THAT(recorder_->take(), IsEmpty());
    platform_.loop->advance(2s);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 2 main", "exit main"));
    monitor_->requestState(region("main"));
    platform_.loop->runUntilIdle();
    EXPECT_THAT(recorder_->take(), ElementsAre("state 2 main"));
}

// A phone that starts watching a beacon it hears tells the state it is asked for, then the entry; the
// beacon manager's sub-region entry (its line, its log line, its analytics) hangs on that entry.
// The region is left at the tick that is exactly the timeout after its last advertisement, not one later:
// a phone's exit content and the visit's end time both hang on that instant.
TEST_F(RegionEngineTest, ARegionIsLeftExactlyAtTheTimeoutNotATickLater) {
    monitor_->startMonitoring(region("main"));
    hear(11, -60);  // on the ticks' phase: they come every second from now
    recorder_->take();
    platform_.loop->advance(29'999ms);
    EXPECT_THAT(recorder_->take(), IsEmpty());
    platform_.loop->advance(1ms);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 2 main", "exit main"));
}

TEST_F(RegionEngineTest, MonitoringStartedInsideTellsTheStateWhenAskedThenTheEntryOnce) {
    hear(11, -60);
    monitor_->startMonitoring(region("sub", 11));
    hear(11, -60);
    EXPECT_THAT(recorder_->take(), IsEmpty());
    monitor_->requestState(region("sub", 11));
    platform_.loop->runUntilIdle();
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 sub", "enter sub"));
    monitor_->requestState(region("sub", 11));
    platform_.loop->advance(1s);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 sub"));

    // Nobody asks for the state: the entry comes with the next tick.
    hear(12, -60);
    monitor_->startMonitoring(region("other", 12));
    platform_.loop->advance(1s);
    EXPECT_THAT(recorder_->take(), ElementsAre("enter other"));
}

TEST_F(RegionEngineTest, AnIdentifierInUseIsReplaced) {
    monitor_->startMonitoring(region("Custom Region", 11));
    monitor_->startMonitoring(region("Custom Region", 12));
    EXPECT_EQ(monitor_->monitoredRegions().size(), 1u);
    hear(11, -60);
    EXPECT_THAT(recorder_->take(), IsEmpty());
    hear(12, -60);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 Custom Region", "enter Custom Region"));
}

TEST_F(RegionEngineTest, RangingReportsOnceASecondStrongestFirst) {
    monitor_->startRanging(region("main"));
    hear(11, -80);
    hear(12, -55);
    hear(13, -70);
    platform_.loop->advance(1s);
    platform_.loop->advance(500ms);
    hear(13, -60);
    platform_.loop->advance(500ms);
    EXPECT_THAT(recorder_->take(), ElementsAre("range 12@-55 13@-70 11@-80", "range 13@-60"));
    monitor_->stopRanging(region("main"));
    platform_.loop->advance(3s);
    EXPECT_THAT(recorder_->take(), IsEmpty());
}

TEST_F(RegionEngineTest, ABeaconFlickeringAtTheEdgeStaysInside) {
    monitor_->startMonitoring(region("sub", 11));
    for (int i = 0; i < 20; ++i) {
        if (i % 3 == 0) hear(11, -88);  // heard one second in three
        platform_.loop->advance(1s);
    }
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 sub", "enter sub"));
}

TEST_F(RegionEngineTest, AuthorisationIsAnsweredLaterAndDestroyedMonitorsFallSilent) {
    monitor_->requestLocationAlwaysAuthorization();
    EXPECT_THAT(recorder_->events, IsEmpty());
    platform_.loop->runUntilIdle();
    EXPECT_THAT(recorder_->take(), ElementsAre("authorization 3"));
    monitor_->startMonitoring(region("main"));
    monitor_.reset();
    hear(11, -60);
    platform_.loop->advance(40s);
    EXPECT_THAT(recorder_->events, IsEmpty());
}

TEST_F(RegionEngineTest, AStateAskedOfAnUnheardRegionIsOutsideAfterOneRangingPeriod) {
    monitor_->startMonitoring(region("main"));
    monitor_->requestState(region("main"));
    platform_.loop->runUntilIdle();
    EXPECT_THAT(recorder_->take(), IsEmpty());
    platform_.loop->advance(1s);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 2 main"));
    // Heard within the period: inside, once.
    monitor_->requestState(region("sub", 12));
    platform_.loop->advance(500ms);
    hear(12, -60);
    platform_.loop->advance(500ms);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 main", "enter main", "state 1 sub"));
}

TEST_F(RegionEngineTest, MonitoringAgainKeepsWhenTheRegionWasLastHeard) {
    hear(11, -60);
    platform_.loop->advance(20s);
    // Started 20 s after the last advertisement: still inside, and left 30 s after that advertisement.
    monitor_->startMonitoring(region("main"));
    platform_.loop->advance(5s);
    monitor_->startMonitoring(region("main"));  // again: nothing known is forgotten
    platform_.loop->advance(6s);
    EXPECT_THAT(recorder_->take(), ElementsAre("enter main", "state 2 main", "exit main"));
}

TEST_F(RegionEngineTest, OneIdentityFromSeveralDevicesIsOneBeaconButSeveralDevices) {
    auto devices = std::make_shared<Devices>();
    auto scanner = engine_->makeDeviceScanner(devices);
    scanner->startDiscovery(std::nan(""));  // no sensible interval: the scanner's own (3 s)
    monitor_->startRanging(region("main"));
    hear(11, -70, "E0:78:A3:3D:B6:70");
    hear(11, -60, "E0:78:A3:3D:B5:B4");
    hear(11, -80, "E0:78:A3:3D:B5:92");
    platform_.loop->advance(1s);
    EXPECT_THAT(recorder_->take(), ElementsAre("range 11@-80"));
    platform_.loop->advance(2s);
    EXPECT_THAT(devices->counts, ElementsAre(3u));
    for (const double odd : {-1.0, 1e300, std::numeric_limits<double>::infinity()}) {
        scanner->stopDiscovery();
        scanner->startDiscovery(odd);
        EXPECT_TRUE(scanner->isDiscovering());
    }
}

TEST_F(RegionEngineTest, ABeaconHeardWhileTheStateIsAskedForIsInsideOnce) {
    monitor_->startMonitoring(region("main"));
    monitor_->requestState(region("main"));
    platform_.loop->advance(400ms);
    hear(11, -60);
    platform_.loop->advance(2s);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 main", "enter main"));
}

TEST_F(RegionEngineTest, SilenceOfAnyLengthLeavesNoTimerAndKeepsTheTickPhase) {
    monitor_->startMonitoring(region("main"));
    hear(11, -60);
    platform_.loop->advance(31s);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 main", "enter main", "state 2 main", "exit main"));
    // Nothing inside, ranged or discovering: the engine sleeps, however long the silence.
    EXPECT_EQ(platform_.loop->pendingTimers(), 0u);
    platform_.loop->advance(std::chrono::hours(24 * 365 * 200));
    EXPECT_EQ(platform_.loop->pendingTimers(), 0u);

    // Heard again, it wakes on the phase of its first tick: ranging reports on whole seconds from the start.
    const auto start = platform_.loop->now();
    monitor_->startRanging(region("main"));
    platform_.loop->advance(300ms);
    hear(12, -70);
    platform_.loop->advance(700ms);
    EXPECT_THAT(recorder_->take(), ElementsAre("state 1 main", "enter main", "range 12@-70"));
    EXPECT_EQ(platform_.loop->now() - start, 1s);
}

TEST_F(RegionEngineTest, DevicesAreForgottenOnceDiscoveryCannotReportThem) {
    auto devices = std::make_shared<Devices>();
    auto scanner = engine_->makeDeviceScanner(devices);
    scanner->startDiscovery(2.0);
    // A crowd of tagged beacons carried past, each telling an id of its own, 500 a second for a minute; and
    // a phone, which is no beacon hardware and never listed.
    for (int second = 0; second < 60; ++second) {
        for (int tag = 0; tag < 500; ++tag) {
            const auto id = "tag-" + std::to_string(second) + "-" + std::to_string(tag);
            engine_->hear({id, -80, {0x02, 0x01, 0x06}, id, {}, 0, 0, {}, {}});
        }
        engine_->hear({"phone", -60, {0x02, 0x01, 0x06}, {}, {}, 0, 0, {}, {}});
        platform_.loop->advance(1s);
    }
    EXPECT_LE(engine_->rememberedDevices(), 1500u);
    EXPECT_EQ(devices->counts.back(),
              1000u);  // the two seconds of the last interval, each tag once, and no phone
}

TEST(Scenario, BadFilesAreNamedFieldByField) {
    const auto error = [](const char* text) {
        try {
            Scenario::fromJSON(JSON::parse(text));
        } catch (const ScenarioError& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(error(R"({"path": {"points": [{"x": 0, "y": 0}]}})"), "beacons: missing");
    EXPECT_EQ(
        error(
            R"({"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "beacons": [{"major": 1, "minor": 1, "x": 0, "y": 0},
        {"major": 1, "minor": 70000, "x": 0, "y": 0}], "path": {"points": [{"x": 0, "y": 0}]}})"),
        "beacons[1].minor: must be between 0 and 65535");
    EXPECT_EQ(
        error(
            R"({"beacons": [{"uuid": "nope", "major": 1, "minor": 1, "x": 0, "y": 0}], "path": {"points": [{"x": 0, "y": 0}]}})"),
        "beacons[0].uuid: \"nope\" is not a UUID");
    EXPECT_EQ(
        error(
            R"({"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "beacons": [{"major": 1, "minor": 1, "x": "3", "y": 0}],
        "path": {"points": [{"x": 0, "y": 0}]}})"),
        "beacons[0].x: must be a number");
    EXPECT_EQ(
        error(
            R"({"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "beacons": [{"major": 1, "minor": 1, "x": 0, "y": 0}],
        "path": {"points": [{"x": 0, "y": 0, "dwell": -1}]}})"),
        "path.points[0].dwell: must be between 0 and 86400 seconds");
    // A misspelt key is named with its place and the key it most likely meant, instead of being skipped.
    EXPECT_EQ(
        error(
            R"({"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "beacons": [{"major": 1, "minor": 1, "x": 0, "y": 0}],
        "path": {"points": [{"x": 0, "y": 0}, {"x": 1, "y": 0}, {"x": 2, "y": 0, "dwel": 5}]}})"),
        "path.points[2].dwel: unknown key; did you mean dwell?");
    EXPECT_EQ(error(R"({"beacons": [], "colour": "red"})"), "colour: unknown key");
}

TEST(Scenario, TheShopperWalksAtTheGivenSpeedAndDwells) {
    const auto scenario = Scenario::fromJSON(JSON::parse(R"({"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E",
        "beacons": [{"major": 1, "minor": 1, "x": 0, "y": 0}],
        "path": {"speed": 2, "points": [{"x": 0, "y": 0, "dwell": 10}, {"x": 20, "y": 0, "dwell": 5}]}})"));
    EXPECT_EQ(scenario.duration(), 25s);
    EXPECT_EQ(scenario.positionAt(5s), (std::pair{0.0, 0.0}));
    EXPECT_EQ(scenario.positionAt(15s), (std::pair{10.0, 0.0}));
    EXPECT_EQ(scenario.positionAt(60s), (std::pair{20.0, 0.0}));
}

}  // namespace
}  // namespace pelm::platform
