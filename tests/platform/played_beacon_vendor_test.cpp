// Beacons played from a file, in virtual time: a host app tried in a store that does not exist.
#include <pelm/platform/ble/recording_reader.hpp>
#include <pelm/platform/linux/played_beacon_vendor.hpp>
#include <pelm/platform/sim/simulated_store.hpp>
#include <pelm/testing/virtual_loop.hpp>

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

namespace pelm::platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::string kRecordings = std::string(PELM_TEST_DATA) + "/recordings/";

struct Recorder : RegionMonitorDelegate {
    std::shared_ptr<testing::VirtualLoop> loop;
    Date start;
    std::vector<std::string> events;
    explicit Recorder(std::shared_ptr<testing::VirtualLoop> l) : loop(std::move(l)), start(loop->now()) {}
    void didChangeLocationAuthorizationStatus(AuthorizationStatus) override {}
    void didDetermineState(RegionState, const BeaconRegion&) override {}
    void didEnterRegion(const BeaconRegion& region) override { note("enter " + region.identifier); }
    void didExitRegion(const BeaconRegion& region) override { note("exit " + region.identifier); }
    void didRangeBeacons(const std::vector<RangedBeacon>&, const BeaconRegion&) override {}
    // When, in whole seconds since the test began, so the test sees the file's own spacing.
    void note(const std::string& what) {
        const auto at = std::chrono::duration_cast<std::chrono::seconds>(loop->now() - start);
        events.push_back(what + " @" + std::to_string(at.count()));
    }
};

class PlayedBeaconVendorTest : public ::testing::Test {
  protected:
    BeaconRegion region(const std::string& uuid) const {
        return BeaconRegion{
            *ProximityUUID::parse(uuid), std::nullopt, std::nullopt, "store", true, true, true};
    }
    std::filesystem::path write(const std::string& name, const std::string& text) {
        const auto path = std::filesystem::path(::testing::TempDir()) / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    std::shared_ptr<testing::VirtualLoop> loop_ = std::make_shared<testing::VirtualLoop>();
    std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>(loop_);
};

TEST_F(PlayedBeaconVendorTest, AScenarioPlaysOnceFromTheFirstMonitorOnAtItsOwnPace) {
    // The shopper walks 10 m at 2 m/s to a beacon whose signal reaches about 14 m, waits, and walks away.
    const auto file = write("door.json", R"({
      "name": "door", "uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E",
      "radio": {"path_loss_exponent": 2.4, "noise_db": 0.0, "threshold_dbm": -82},
      "beacons": [{"name": "Door", "major": 1, "minor": 1, "x": 30, "y": 0, "measured_power": -59}],
      "path": {"speed": 2.0, "points": [{"x": 0, "y": 0}, {"x": 30, "y": 0, "dwell": 3}, {"x": 0, "y": 0}]}
    })");
    auto vendor = PlayedBeaconVendor::scenario(loop_, file);

    // Nothing plays while nobody listens: an hour later, the walk has still not begun.
    loop_->advance(3600s);
    auto monitor = vendor->makeRegionMonitor(recorder_);
    monitor->startMonitoring(region("F7826DA6-4FA2-4E98-8024-BC5B71E0893E"));
    loop_->advance(120s);

    ASSERT_EQ(recorder_->events.size(), 2u) << ::testing::PrintToString(recorder_->events);
    // In range within the last ~14 m of 30 m at 2 m/s; out again 30 s after the last advertisement.
    const auto seconds = [](const std::string& event) {
        return std::stoi(event.substr(event.find('@') + 1));
    };
    EXPECT_THAT(recorder_->events[0], ::testing::StartsWith("enter store"));
    EXPECT_THAT(recorder_->events[1], ::testing::StartsWith("exit store"));
    EXPECT_GE(seconds(recorder_->events[0]) - 3600, 6) << ::testing::PrintToString(recorder_->events);
    EXPECT_LE(seconds(recorder_->events[0]) - 3600, 10);
    EXPECT_GE(seconds(recorder_->events[1]) - seconds(recorder_->events[0]), 30 + 3);

    // Played once: more time brings nothing more.
    recorder_->events.clear();
    loop_->advance(600s);
    EXPECT_THAT(recorder_->events, IsEmpty());
}

TEST_F(PlayedBeaconVendorTest, ARecordingPlaysAtItsRecordedSpacing) {
    auto vendor = PlayedBeaconVendor::recording(loop_, kRecordings + "mall-walk.jsonl");
    auto monitor = vendor->makeRegionMonitor(recorder_);
    monitor->startMonitoring(region("9195B3AD-A9D0-4500-85FF-9FB0F65A5201"));
    loop_->advance(40s);
    EXPECT_THAT(recorder_->events, ElementsAre("enter store @0"));
    // The walk lasts 41.8 s; silence for 30 s after its last advertisement is an exit.
    loop_->advance(60s);
    EXPECT_THAT(recorder_->events, ElementsAre("enter store @0", "exit store @72"));
}

TEST_F(PlayedBeaconVendorTest, AFileThatIsNoRecordingOrScenarioFailsAtOnceNamingIt) {
    const auto text = write("notes.txt", "shopping list: milk, eggs\n");
    EXPECT_THROW(PlayedBeaconVendor::recording(loop_, text), RecordingError);
    EXPECT_THROW(PlayedBeaconVendor::scenario(loop_, text), ScenarioError);
    try {
        PlayedBeaconVendor::scenario(loop_, "/nonexistent/store.json");
        FAIL() << "a missing scenario was accepted";
    } catch (const ScenarioError& error) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr("/nonexistent/store.json"));
    }
}

}  // namespace
}  // namespace pelm::platform
