// One store visit, told from the first vendor callback to the session the server stored: the scripted vendor
// plays the phone, the real session engine looks content up from pelm-server over HTTPS, and the host app's
// delegate and the analytics events are checked step by step.
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/events/visit_event.hpp>
#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/sim/simulated_store.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <gmock/gmock.h>

#include <optional>

#include "support/beacon_recorders.hpp"
#include "support/server_fixture.hpp"

namespace pelm {
namespace {

using namespace std::chrono_literals;
using platform::BeaconRegion;
using platform::RegionState;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

const std::string U = testing::kUuid;
const std::string kMain = "PELM Region " + U + " [entry,exit,display]";
const std::string kCheese = "Custom Region " + U + " 1 11 [entry,exit,display]";
const std::string kBread = "Custom Region " + U + " 1 12 [entry,exit,display]";
// Store 1, merchandise group 11, in the retail vocabulary.
const std::string kStore =
    "Talstra\xC3\x9F"
    "e Galerie";

class BeaconVisitTest : public testing::ServerTest {
  protected:
    void SetUp() override {
        ServerTest::SetUp();
        ::setenv("TZ", "Europe/Vienna", 1);
        ::tzset();
        const auto settings = SettingsManager::sharedInstance();
        settings->setAppToken(testing::kToken);
        settings->setApiHost(server_->host());
        settings->setDefaultBeaconUUID(testing::kUuid);
        settings->setKontaktIoAPIKey("kontakt-key");
        manager_ = analytics_.make();
        manager_->delegate = host_;
        vendor().takeCalls();
    }
    void TearDown() override {
        manager_.reset();
        ServerTest::TearDown();
    }
    testing::ScriptedBeaconVendor& vendor() { return *platform_->vendor; }
    static BeaconRegion region(std::optional<std::uint16_t> major = std::nullopt,
                               std::optional<std::uint16_t> minor = std::nullopt) {
        BeaconRegion r;
        r.proximityUUID = *platform::ProximityUUID::parse(testing::kUuid);
        r.major = major;
        r.minor = minor;
        r.identifier = major ? "Custom Region" : "PELM Region";
        r.notifyOnEntry = r.notifyOnExit = r.notifyEntryStateOnDisplay = true;
        return r;
    }
    static platform::RangedBeacon heard(std::uint16_t minor) {
        return {*platform::ProximityUUID::parse(testing::kUuid), 1, minor, -65, 2.0};
    }

    std::shared_ptr<testing::RecordingBeaconDelegate> host_ =
        std::make_shared<testing::RecordingBeaconDelegate>();
    std::shared_ptr<PelmBeaconManager> manager_;
    testing::AnalyticsRecorder analytics_;
};

TEST_F(BeaconVisitTest, OneVisitFromTheFirstCallbackToTheStoredSession) {
    // The host starts monitoring; the user allows location use at all times, which asks for the state.
    manager_->startMonitoring();
    vendor().authorize(3);
    EXPECT_THAT(vendor().takeCalls(), ElementsAre("startMonitoring " + kMain, "requestState " + kMain));
    EXPECT_THAT(host_->take(),
                ElementsAre("log Starting core monitoring for uuid: " + U,
                            "log DidChangeLocationAuthorizationState status: AuthorizedAlways"));

    // Inside the store: discovery and ranging start; the entry callback follows.
    vendor().determine(RegionState::Inside, region());
    vendor().enter(region());
    EXPECT_THAT(vendor().takeCalls(),
                ElementsAre("isDiscovering", "startDiscovery 2.0", "startRanging " + kMain,
                            "startRanging " + kMain, "isDiscovering"));
    EXPECT_THAT(host_->take(),
                ElementsAre("log Starting discovery with interval", "log DidDetermineState state: Inside",
                            "log Entering MAIN Region: " + U, "log Already discovery..."));

    // Two beacons are ranged: each is new, gets its entry content looked up and a sub-region of its own.
    vendor().range({heard(11), heard(12)}, region());
    EXPECT_THAT(vendor().takeCalls(), ElementsAre("startMonitoring " + kCheese, "requestState " + kCheese,
                                                  "startMonitoring " + kBread, "requestState " + kBread));
    settle();
    EXPECT_THAT(host_->take(), UnorderedElementsAre("log Starting monitoring for: major: 1 minor: 11",
                                                    "log Starting monitoring for: major: 1 minor: 12",
                                                    "content 1", "log Did find new content: Cheese week",
                                                    "content 3", "log Did find new content: Fresh bread"));
    EXPECT_THAT(analytics_.take(), UnorderedElementsAre("Beacon Views | Discovered | " + U + "+1+11",
                                                        "Beacon Views | Discovered | " + U + "+1+12"));
    // Heard again: nothing new.
    vendor().range({heard(11), heard(12)}, region());
    EXPECT_THAT(vendor().calls, IsEmpty());
    EXPECT_THAT(host_->events, IsEmpty());

    // The cheese counter's sub-region: its state and its entry each open a log line.
    vendor().determine(RegionState::Inside, region(1, 11));
    vendor().enter(region(1, 11));
    EXPECT_THAT(vendor().takeCalls(),
                ElementsAre("isDiscovering", "startRanging " + kCheese, "startRanging " + kCheese));
    EXPECT_THAT(
        host_->take(),
        ElementsAre("log Already discovery...", "log Session Log: major: 1 minor: 11 uuid: " + U,
                    "log DidDetermineState state: Inside", "log Entering SUB Region: " + U + " - 1 - 11",
                    "log Session Log: major: 1 minor: 11 uuid: " + U));
    EXPECT_THAT(analytics_.take(), ElementsAre("Beacon Markt/Warengruppen | " + kStore + " | K\xC3\xA4se",
                                               "Beacon Markt/Verweildauer | " + kStore + " | Enter",
                                               "Beacon Views | " + kStore + " | " + U + "+1+11",
                                               "Beacon Warengruppe/Verweildauer | " + kStore + " | Enter",
                                               "Beacon Views | Discovered | " + U + "+1+11"));

    // Half a minute later the user leaves the counter: exit content, the later line closes.
    platform_->loop->advance(30s);
    vendor().exit(region(1, 11));
    EXPECT_THAT(vendor().takeCalls(), ElementsAre("stopRanging " + kCheese, "stopMonitoring " + kCheese));
    settle();
    EXPECT_THAT(host_->take(), ElementsAre("log Stop ranging for: major: 1 minor: 11 uuid: " + U,
                                           "log Exiting SUB Region: " + U + " - 1 - 11", "content 2",
                                           "log Did find new content: Goodbye"));
    EXPECT_EQ(testing::engineOf(*manager_).lastBeaconMajorId(), 1);
    EXPECT_THAT(analytics_.take(), ElementsAre("Beacon Warengruppe/Verweildauer | " + kStore + " | Exit",
                                               "Beacon Views | Discovered | " + U + "+1+11"));

    // A minute later the user leaves the store: the visit is finished and uploaded, discovery stops.
    platform_->loop->advance(60s);
    vendor().exit(region());
    EXPECT_THAT(vendor().takeCalls(), ElementsAre("stopRanging " + kMain, "stopDiscovery"));
    settle();
    EXPECT_THAT(
        host_->take(),
        ElementsAre("log Stop ranging for: uuid: " + U, "log Exiting MAIN Region: " + U,
                    "log Stopping discovery with interval", "log Session upload successful finished"));
    EXPECT_THAT(analytics_.take(), ElementsAre("Beacon Markt/Verweildauer | " + kStore + " | Exit"));

    // What the server stored: the line closed at the counter, then the one closed at the store's exit.
    const auto stored = server_->store().sessions();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0]["session"]["start_time"], "2016-07-16T19:20:30.450+0200");
    EXPECT_EQ(stored[0]["session"]["end_time"], "2016-07-16T19:22:00.450+0200");
    EXPECT_EQ(stored[0]["beacon"], JSON::parse(R"({"uuid": ")" + U + R"(", "major": "1", "minor": "11"})"));
    ASSERT_EQ(stored[0]["session_logs"].size(), 2u);
    EXPECT_EQ(stored[0]["session_logs"][0]["exit_time"], "2016-07-16T19:21:00.450+0200");
    EXPECT_EQ(stored[0]["session_logs"][1]["exit_time"], "2016-07-16T19:22:00.450+0200");
}

TEST_F(BeaconVisitTest, ASecondSubRegionOfTheSameVisitIsNotTheFirstBeacon) {
    vendor().enter(region());
    vendor().enter(region(1, 11));
    analytics_.take();
    vendor().enter(region(1, 12));
    EXPECT_THAT(analytics_.take(), ElementsAre("Beacon Markt/Warengruppen | " + kStore + " | Milchprodukte",
                                               "Beacon Views | " + kStore + " | " + U + "+1+12",
                                               "Beacon Warengruppe/Verweildauer | " + kStore + " | Enter",
                                               "Beacon Views | Discovered | " + U + "+1+12"));
    vendor().enter(region());  // a new visit makes the next sub-region the first again
    EXPECT_TRUE(testing::engineOf(*manager_).firstBeacon());
}

TEST_F(BeaconVisitTest, TheStoreExitNamesTheLastBeaconLeftEvenFromAnEarlierVisit) {
    vendor().exit(region(905, 3));
    vendor().exit(region());
    settle();
    vendor().enter(region());
    vendor().exit(region());
    settle();
    EXPECT_THAT(analytics_.take(), ElementsAre("Beacon Warengruppe/Verweildauer | Reserve | Exit",
                                               "Beacon Markt/Verweildauer | Reserve | Exit",
                                               "Beacon Markt/Verweildauer | Reserve | Exit"));
}

TEST_F(BeaconVisitTest, StatusLinesKeepTheirCriticalFlagAndNoDelegateDropsThem) {
    vendor().exit(region());  // no line recorded: the engine's critical line is passed on as critical
    EXPECT_THAT(host_->take(),
                ::testing::Contains("log Cant' finish session, session logs array is empty (critical)"));
    manager_->delegate = nullptr;
    vendor().range({heard(11)}, region());
    settle();
    EXPECT_THAT(host_->events, IsEmpty());
    EXPECT_THAT(analytics_.take(), ElementsAre("Beacon Views | Discovered | " + U + "+1+11"));
}

// A host that stops: what becomes of the visit in progress.
class HostStopTest : public BeaconVisitTest {
  protected:
    // Into the store and up to the cheese counter: one open log line.
    void walkIn() {
        manager_->startMonitoring();
        vendor().enter(region());
        vendor().range({heard(11)}, region());
        vendor().enter(region(1, 11));
        settle();
        host_->take();
        analytics_.take();
        vendor().takeCalls();
    }
    std::optional<VisitAtStop> stop() {
        std::optional<VisitAtStop> visit;
        manager_->stop([&](VisitAtStop answer) {
            EXPECT_FALSE(visit) << "answered twice";
            visit = answer;
        });
        EXPECT_EQ(visit, std::nullopt) << "answered before the main queue ran";
        settle();
        return visit;
    }
    std::size_t storedVisits() const { return server_->store().sessions().size(); }
};

TEST_F(HostStopTest, AVisitInProgressEndsAsLeavingWouldAndIsUploadedOnce) {
    walkIn();
    EXPECT_EQ(stop(), VisitAtStop::uploaded);
    EXPECT_THAT(vendor().takeCalls(), ::testing::Contains("stopMonitoringForAllRegions"));
    const auto stored = server_->store().sessions();
    ASSERT_EQ(stored.size(), 1u);
    const auto& lines = stored[0]["session_logs"];
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["minor"], "11");
    EXPECT_TRUE(lines[0].contains("exit_time"));
    EXPECT_THAT(host_->take(), ::testing::Contains("log Session upload successful finished"));

    // The vendor's last words are not acted on: no exit content, no second upload.
    vendor().exit(region(1, 11));
    vendor().exit(region());
    settle();
    EXPECT_THAT(host_->take(), IsEmpty());
    EXPECT_EQ(storedVisits(), 1u);
    EXPECT_EQ(stop(), VisitAtStop::none);
}

TEST_F(HostStopTest, WithoutAVisitNothingIsSentAndAnUploadUnderWayIsWaitedFor) {
    manager_->startMonitoring();
    EXPECT_EQ(stop(), VisitAtStop::none);
    EXPECT_EQ(storedVisits(), 0u);

    // Leaving the store starts the upload; a stop before its answer gets that answer.
    walkIn();
    vendor().exit(region(1, 11));
    vendor().exit(region());
    EXPECT_EQ(stop(), VisitAtStop::uploaded);
    EXPECT_EQ(storedVisits(), 1u);
}

// An analytics listener may come while an upload is under way: it still hears which visit was stored.
TEST_F(HostStopTest, AListenerThatComesDuringTheUploadHearsTheWholeVisit) {
    walkIn();
    vendor().exit(region(1, 11));
    vendor().exit(region());  // the upload is sent now
    struct Uploads : events::VisitEventListener {
        void onVisitEvent(const events::VisitEvent& event) override {
            if (const auto* upload = std::get_if<events::VisitUploaded>(&event.data))
                heard.push_back(*upload);
        }
        std::vector<events::VisitUploaded> heard;
    };
    const auto listener = std::make_shared<Uploads>();
    const auto subscription = events::subscribe(listener);
    settle();
    ASSERT_EQ(listener->heard.size(), 1u);
    const auto& upload = listener->heard[0];
    EXPECT_TRUE(upload.stored);
    EXPECT_EQ(upload.beacon.minor, "11");
    ASSERT_EQ(upload.lines.size(), 1u);
    EXPECT_TRUE(upload.session.startTime.has_value());
}

TEST_F(HostStopTest, AVisitTheServerRefusesIsReportedLost) {
    walkIn();
    testing::ServerFault refused;
    refused.status = 500;
    server_->setFault("/api/v1/sessions", refused);
    EXPECT_EQ(stop(), VisitAtStop::notUploaded);
    EXPECT_THAT(host_->take(), ::testing::Contains("log Failed to upload session (critical)"));
}

// The same visit on Linux: the region engine hears the store's advertisements and makes the phone's
// callbacks of them, a new sub-region's state and then its entry.
class LinuxVisitTest : public testing::ServerTest {
  protected:
    void SetUp() override {
        ServerTest::SetUp();
        const auto settings = SettingsManager::sharedInstance();
        settings->setAppToken(testing::kToken);
        settings->setApiHost(server_->host());
        settings->setDefaultBeaconUUID(testing::kUuid);
        settings->setKontaktIoAPIKey("kontakt-key");
        engine_ = std::make_shared<platform::RegionEngine>(platform_->loop);
        platform_->services->beaconVendor = engine_;
        manager_ = analytics_.make();
        manager_->delegate = host_;
    }
    void TearDown() override {
        manager_.reset();
        ServerTest::TearDown();
    }
    // Beacon 1/`minor` sends ten times a second for `span`.
    void hear(std::uint16_t minor, std::chrono::milliseconds span) {
        platform::Scenario::Beacon beacon;
        beacon.uuid = *platform::ProximityUUID::parse(testing::kUuid);
        beacon.major = 1;
        beacon.minor = minor;
        platform::HeardAdvertisement advertisement;
        advertisement.address = "beacon-" + std::to_string(minor);
        advertisement.rssi = -60;
        advertisement.data = platform::SimulatedStore::advertisingData(beacon);
        for (auto at = 0ms; at < span; at += 100ms) {
            engine_->hear(advertisement);
            platform_->loop->advance(100ms);
            settle();
        }
    }
    std::optional<VisitAtStop> stop() {
        std::optional<VisitAtStop> visit;
        manager_->stop([&](VisitAtStop answer) { visit = answer; });
        settle();
        return visit;
    }

    std::shared_ptr<platform::RegionEngine> engine_;
    std::shared_ptr<testing::RecordingBeaconDelegate> host_ =
        std::make_shared<testing::RecordingBeaconDelegate>();
    std::shared_ptr<PelmBeaconManager> manager_;
    testing::AnalyticsRecorder analytics_;
};

TEST_F(LinuxVisitTest, ABeaconsSubRegionIsEnteredWithItsLineItsLogLinesAndAnalyticsRowsOneToFive) {
    manager_->startMonitoring();
    hear(11, 3s);
    const auto lines = host_->take();
    const auto at = [&](const std::string& line) {
        const auto found = std::find(lines.begin(), lines.end(), line);
        EXPECT_NE(found, lines.end()) << "missing: " << line;
        return found - lines.begin();
    };
    // The state opens a log line, the entry a second one, as a phone's two callbacks do.
    const auto state = at("log Starting monitoring for: major: 1 minor: 11");
    const auto entering = at("log Entering SUB Region: " + U + " - 1 - 11");
    EXPECT_LT(state, entering);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "log Session Log: major: 1 minor: 11 uuid: " + U), 2);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "log Entering MAIN Region: " + U), 1);
    EXPECT_THAT(lines, ::testing::Contains("content 1"));

    auto analytics = analytics_.take();
    const std::vector<std::string> rows{"Beacon Markt/Warengruppen | " + kStore + " | K\xC3\xA4se",
                                        "Beacon Markt/Verweildauer | " + kStore + " | Enter",
                                        "Beacon Views | " + kStore + " | " + U + "+1+11",
                                        "Beacon Warengruppe/Verweildauer | " + kStore + " | Enter",
                                        "Beacon Views | Discovered | " + U + "+1+11"};
    // Row 8, for the content found, comes whenever the server answers; rows 1 to 5 are the entry's.
    const auto content = std::find(analytics.begin(), analytics.end(), rows[4]);
    ASSERT_NE(content, analytics.end());
    analytics.erase(content);
    EXPECT_EQ(analytics, rows);
}

TEST_F(LinuxVisitTest, AStopAndAStartFindTheBeaconsInRangeAgainInsideOrOutsideTheStore) {
    manager_->startMonitoring();
    hear(11, 3s);
    ASSERT_THAT(host_->take(), ::testing::Contains("content 1"));
    EXPECT_EQ(stop(), VisitAtStop::uploaded);

    // Started again inside: within a second the store and the beacon are entered and its content looked up
    // again (held back: it was shown a moment ago).
    manager_->startMonitoring();
    hear(11, 1s);
    auto lines = host_->take();
    EXPECT_THAT(lines, ::testing::Contains("log Entering MAIN Region: " + U));
    EXPECT_THAT(lines, ::testing::Contains("log Entering SUB Region: " + U + " - 1 - 11"));
    EXPECT_THAT(lines, ::testing::Contains(::testing::StartsWith("log Beacon is hot until: ")));

    // Stopped inside, started again after the shopper left and came back, the content cooled down.
    EXPECT_EQ(stop(), VisitAtStop::uploaded);
    platform_->loop->advance(60s);
    manager_->startMonitoring();
    platform_->loop->advance(5s);
    hear(11, 3s);
    lines = host_->take();
    EXPECT_THAT(lines, ::testing::Contains("content 1"));
    EXPECT_THAT(lines, ::testing::Not(::testing::Contains(
                           "log Cant' finish session, session logs array is empty (critical)")));
    EXPECT_EQ(stop(), VisitAtStop::uploaded);
    EXPECT_EQ(server_->store().sessions().size(), 3u);
}

}  // namespace
}  // namespace pelm
