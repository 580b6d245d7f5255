// The beacon manager on the scripted vendor: set-up in its three states, region callbacks, discovery.
// No server here: the session manager has no client, so no content is looked up.
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/events/visit_event.hpp>
#include <pelm/events/visit_event_hub.hpp>
#include <pelm/sdk/settings_manager.hpp>
#include <pelm/session/pelm_session_manager.hpp>

#include <gmock/gmock.h>

#include "support/beacon_recorders.hpp"
#include "support/test_platform.hpp"

namespace pelm {

namespace {

using platform::BeaconRegion;
using platform::RegionState;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kUuid = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";
const std::string kMain = std::string("PELM Region ") + kUuid + " [entry,exit,display]";

class BeaconManagerTest : public ::testing::Test {
  protected:
    void store(std::optional<std::string> key, std::optional<std::string> uuid) {
        SettingsManager::sharedInstance()->setKontaktIoAPIKey(key);
        SettingsManager::sharedInstance()->setDefaultBeaconUUID(uuid);
    }
    std::shared_ptr<PelmBeaconManager> make(bool delegateFirst = false) {
        auto manager = analytics_.make(delegateFirst ? host_ : nullptr);
        manager->delegate = host_;
        return manager;
    }
    static BeaconRegion region(std::optional<std::uint16_t> major = std::nullopt,
                               std::optional<std::uint16_t> minor = std::nullopt) {
        BeaconRegion r;
        r.proximityUUID = *platform::ProximityUUID::parse(kUuid);
        r.major = major;
        r.minor = minor;
        r.identifier = major ? "Custom Region" : "PELM Region";
        r.notifyOnEntry = r.notifyOnExit = r.notifyEntryStateOnDisplay = true;
        return r;
    }
    testing::ScriptedBeaconVendor& vendor() { return *platform_.vendor; }

    testing::TestPlatform platform_;
    testing::AnalyticsRecorder analytics_;
    std::shared_ptr<testing::RecordingBeaconDelegate> host_ =
        std::make_shared<testing::RecordingBeaconDelegate>();
};

TEST_F(BeaconManagerTest, WithoutAVendorKeyNothingReachesTheVendor) {
    store(std::nullopt, kUuid);
    const auto manager = make();
    manager->startMonitoring();
    manager->startDiscoveryWithInterval(2.0);
    manager->stopDiscovery();
    manager->stopMonitoring(region(1, 2));
    manager->stopMonitoring(std::nullopt);
    EXPECT_THAT(vendor().calls, IsEmpty());
    EXPECT_THAT(host_->events, IsEmpty());
    // The first line is the session manager's: no token is stored, so it has no client.
    EXPECT_THAT(platform_.lines(),
                ElementsAre("[PELM][ERROR] No app token set.", "[PELM][ERROR] No Kontakt.io API key set.",
                            "[PELM][ERROR] Current region is not set.",
                            "[PELM][ERROR] Nearby-device discovery needs a Kontakt.io API key.",
                            "[PELM][ERROR] Nearby-device discovery needs a Kontakt.io API key.",
                            "[PELM][ERROR] Region monitoring needs a Kontakt.io API key."));

    EXPECT_THAT(vendor().calls, IsEmpty());
}

TEST_F(BeaconManagerTest, AKeyWithoutAValidUuidSetsUpTheVendorButNoMainRegion) {
    store("kontakt-key", "F7826DA6-4FA2-4E98-8024-BC5B71E0893");
    const auto manager = make();
    EXPECT_THAT(vendor().takeCalls(), ElementsAre("setAPIKey kontakt-key", "makeRegionMonitor",
                                                  "requestLocationAlwaysAuthorization", "monitoredRegions",
                                                  "rangedRegions", "stopMonitoringForAllRegions",
                                                  "stopRangingBeaconsInAllRegions", "makeDeviceScanner"));
    EXPECT_FALSE(testing::engineOf(*manager).mainRegion());
    manager->startMonitoring();
    EXPECT_THAT(vendor().calls, IsEmpty());
    EXPECT_THAT(platform_.lines(),
                ElementsAre("[PELM][ERROR] No app token set.", "[PELM][ERROR] Current region is not set."));
}

TEST_F(BeaconManagerTest, KeyAndUuidGiveAMainRegionAndDropLeftoverRegions) {
    store("kontakt-key", "f7826da6-4fa2-4e98-8024-bc5b71e0893e");
    vendor().monitored["old one"] = region(3, 4);
    vendor().monitored["older"] = region(5, 6);
    const auto manager = make(/*delegateFirst=*/true);
    EXPECT_TRUE(vendor().monitored.empty());
    ASSERT_TRUE(testing::engineOf(*manager).mainRegion());
    EXPECT_EQ(testing::ScriptedBeaconVendor::describe(*testing::engineOf(*manager).mainRegion()), kMain);
    // Only a delegate there before set-up hears these four lines.
    EXPECT_THAT(host_->take(),
                ElementsAre("log Monitored Regions: 2", "log Ranged Regions: 0",
                            "log Reseting all monitored regions...", "log Reseting all ranged regions..."));
    vendor().takeCalls();
    manager->startMonitoring();
    manager->startMonitoring();
    EXPECT_THAT(vendor().calls, ElementsAre("startMonitoring " + kMain, "startMonitoring " + kMain));
    EXPECT_THAT(host_->take(), ElementsAre(std::string("log Starting core monitoring for uuid: ") + kUuid,
                                           std::string("log Starting core monitoring for uuid: ") + kUuid));
    EXPECT_THAT(platform_.lines(), ElementsAre("[PELM][ERROR] No app token set."));
}

TEST_F(BeaconManagerTest, AuthorisationAlwaysAsksForTheMainRegionsState) {
    store("kontakt-key", kUuid);
    const auto manager = make();
    vendor().takeCalls();
    for (int status : {0, 1, 2, 4, 7, 3}) vendor().authorize(status);
    EXPECT_THAT(vendor().calls, ElementsAre("requestState " + kMain));
    EXPECT_THAT(host_->take(),
                ElementsAre("log DidChangeLocationAuthorizationState status: Not Determined",
                            "log DidChangeLocationAuthorizationState status: Restricted",
                            "log DidChangeLocationAuthorizationState status: Denied",
                            "log DidChangeLocationAuthorizationState status: AuthorizedWhenInUse",
                            "log DidChangeLocationAuthorizationState",
                            "log DidChangeLocationAuthorizationState status: AuthorizedAlways"));
}

TEST_F(BeaconManagerTest, StatesInsideStartDiscoveryAndRangingAndASubRegionAlsoAnEntry) {
    store("kontakt-key", kUuid);
    const auto manager = make();
    vendor().takeCalls();
    vendor().determine(RegionState::Unknown, region());
    vendor().determine(RegionState::Outside, region());
    vendor().determine(RegionState::Inside, region());
    EXPECT_THAT(vendor().takeCalls(),
                ElementsAre("isDiscovering", "startDiscovery 2.0", "startRanging " + kMain));
    EXPECT_THAT(host_->take(),
                ElementsAre("log DidDetermineState state: Unknown", "log DidDetermineState state: Outside",
                            "log Starting discovery with interval", "log DidDetermineState state: Inside"));
    EXPECT_THAT(testing::engineOf(*manager).sessionManager()->unfinishedSessionLogs(), IsEmpty());

    vendor().determine(RegionState::Inside, region(1, 11));
    vendor().enter(region(1, 11));
    EXPECT_EQ(testing::engineOf(*manager).sessionManager()->unfinishedSessionLogs().size(),
              2u);  // state and entry: two lines
}

TEST_F(BeaconManagerTest, RangingOffersEachBeaconAndWatchesOnlyNewOnes) {
    store("kontakt-key", kUuid);
    const auto manager = make();
    vendor().takeCalls();
    const auto uuid = *platform::ProximityUUID::parse(kUuid);
    const std::vector<platform::RangedBeacon> heard = {{uuid, 1, 11, -60, 1.5}, {uuid, 0, 65535, -90, 12.0}};
    vendor().range(heard, region());
    vendor().range(heard, region());
    EXPECT_THAT(
        vendor().calls,
        ElementsAre(std::string("startMonitoring Custom Region ") + kUuid + " 1 11 [entry,exit,display]",
                    std::string("requestState Custom Region ") + kUuid + " 1 11 [entry,exit,display]",
                    std::string("startMonitoring Custom Region ") + kUuid + " 0 65535 [entry,exit,display]",
                    std::string("requestState Custom Region ") + kUuid + " 0 65535 [entry,exit,display]"));
    EXPECT_THAT(host_->take(), ElementsAre("log Starting monitoring for: major: 1 minor: 11",
                                           "log Starting monitoring for: major: 0 minor: 65535"));
    // One sub-region at a time: the second replaced the first.
    EXPECT_EQ(vendor().monitored.size(), 1u);
    EXPECT_EQ(testing::engineOf(*manager).sessionManager()->discoveredBeacons().size(), 2u);
}

TEST_F(BeaconManagerTest, LeavingTheMainRegionFinishesTheVisitAndStopsDiscovery) {
    store("kontakt-key", kUuid);
    const auto manager = make();
    vendor().enter(region());
    EXPECT_TRUE(testing::engineOf(*manager).firstBeacon());
    vendor().takeCalls();
    host_->take();
    vendor().exit(region());
    EXPECT_THAT(vendor().calls, ElementsAre("stopRanging " + kMain, "stopDiscovery"));
    EXPECT_THAT(host_->take(), ElementsAre(std::string("log Stop ranging for: uuid: ") + kUuid,
                                           std::string("log Exiting MAIN Region: ") + kUuid,
                                           "log Cant' finish session, session logs array is empty (critical)",
                                           "log Stopping discovery with interval"));
    EXPECT_THAT(analytics_.take(), IsEmpty());  // no sub-region was ever left
}

TEST_F(BeaconManagerTest, DiscoveryStartsOnceStopsAlwaysAndReportsDevices) {
    store("kontakt-key", kUuid);
    const auto manager = make();
    vendor().takeCalls();
    manager->startDiscoveryWithInterval(std::nullopt);
    manager->startDiscoveryWithInterval(5.0);
    manager->stopDiscovery();
    manager->stopDiscovery();
    manager->startDiscoveryWithInterval(0.5);
    EXPECT_THAT(vendor().takeCalls(),
                ElementsAre("isDiscovering", "startDiscovery", "isDiscovering", "stopDiscovery",
                            "stopDiscovery", "isDiscovering", "startDiscovery 0.5"));
    EXPECT_THAT(host_->take(),
                ElementsAre("log Starting discovery with interval", "log Already discovery...",
                            "log Stopping discovery with interval", "log Stopping discovery with interval",
                            "log Starting discovery with interval"));

    vendor().discover(std::nullopt);
    vendor().discover(std::vector<platform::NearbyDevice>{});
    vendor().failDiscovery("Bluetooth is off");
    vendor().discover(std::vector<platform::NearbyDevice>{{"aBc1", -12, "4.1", 87, -71},
                                                          {std::nullopt, 0, "4.0", 50, -80},
                                                          {"Zz9", 3, std::nullopt, 12, -95},
                                                          {"q", 0, "", 0, 0}});
    EXPECT_THAT(host_->take(), ElementsAre("devices aBc1/-12/4.1/87/-71 Zz9/3//12/-95 q/0//0/0"));
    vendor().discover(std::vector<platform::NearbyDevice>{{std::nullopt, 0, "4.0", 50, -80}});
    EXPECT_THAT(host_->events, IsEmpty());
}

// Writes the events it receives among the delegate's lines, so that their order shows.
struct EventLines : events::VisitEventListener {
    explicit EventLines(std::vector<std::string>& lines) : lines(lines) {}
    void onVisitEvent(const events::VisitEvent& event) override {
        const auto beacon = [](const events::BeaconIdentity& b) { return b.major + "/" + b.minor; };
        if (const auto* e = std::get_if<events::MainRegionEntered>(&event.data)) {
            lines.push_back("event store entered" + std::string(e->alreadyInside ? " (inside)" : ""));
        } else if (std::holds_alternative<events::MainRegionLeft>(event.data)) {
            lines.push_back("event store left");
        } else if (const auto* e = std::get_if<events::SubRegionEntered>(&event.data)) {
            lines.push_back("event entered " + beacon(e->beacon) + (e->alreadyInside ? " (inside)" : ""));
        } else if (const auto* e = std::get_if<events::SubRegionLeft>(&event.data)) {
            lines.push_back("event left " + beacon(e->beacon));
        } else if (const auto* e = std::get_if<events::BeaconsRanged>(&event.data)) {
            for (const auto& b : e->beacons) {
                lines.push_back("event ranged " + beacon(b.beacon) + " " + std::to_string(b.rssi) + " " +
                                events::proximityName(b.proximity));
            }
        } else if (const auto* e = std::get_if<events::NearbyDevices>(&event.data)) {
            lines.push_back("event nearby " + std::to_string(e->devices.size()));
        }
    }
    std::vector<std::string>& lines;
};

TEST_F(BeaconManagerTest, EventsNameTheirBeaconComeBeforeTheDelegateAndStopWhenReleased) {
    store("kontakt-key", kUuid);
    const auto manager = make();
    const auto listener = std::make_shared<EventLines>(host_->events);
    auto subscription = events::subscribe(listener);
    host_->take();

    vendor().enter(region());
    const auto uuid = *platform::ProximityUUID::parse(kUuid);
    vendor().range({{uuid, 1, 11, -60, 1.5}, {uuid, 1, 12, -90, -1}}, region());
    vendor().determine(RegionState::Inside, region(1, 11));
    platform_.loop->runUntilIdle();  // no entry followed the state: it was found inside
    vendor().determine(RegionState::Inside, region(1, 12));
    vendor().enter(region(1, 12));  // an entry follows the state: one event, an entry
    platform_.loop->runUntilIdle();
    vendor().exit(region(1, 11));
    vendor().discover(std::vector<platform::NearbyDevice>{{"aBc1", -12, "4.1", 87, -71}});
    const auto lines = host_->take();
    const auto has = [&](const std::string& line) {
        const auto found = std::find(lines.begin(), lines.end(), line);
        if (found == lines.end()) ADD_FAILURE() << "missing: " << line;
        return found - lines.begin();
    };
    EXPECT_LT(has("event store entered"), has(std::string("log Entering MAIN Region: ") + kUuid));
    EXPECT_LT(has("event ranged 1/11 -60 near"), has("log Starting monitoring for: major: 1 minor: 11"));
    EXPECT_LT(has("event ranged 1/12 -90 unknown"), has("log Starting monitoring for: major: 1 minor: 11"));
    EXPECT_GT(has("event entered 1/11 (inside)"), has("log DidDetermineState state: Inside"));
    EXPECT_LT(has("event entered 1/12"), has("log Entering SUB Region: " + std::string(kUuid) + " - 1 - 12"));
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.starts_with("event entered 1/12"); }),
              1);
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const std::string& line) { return line.starts_with("event store entered"); }),
              1);
    EXPECT_LT(has("event left 1/11"),
              has(std::string("log Stop ranging for: major: 1 minor: 11 uuid: ") + kUuid));
    EXPECT_LT(has("event nearby 1"), has("devices aBc1/-12/4.1/87/-71"));

    subscription.reset();
    vendor().exit(region());
    for (const auto& line : host_->take()) EXPECT_THAT(line, ::testing::Not(::testing::StartsWith("event")));
}

TEST_F(BeaconManagerTest, DestroyingTheManagerEndsTheVendorCallbacks) {
    store("kontakt-key", kUuid);
    auto manager = make();
    std::weak_ptr<PelmBeaconManager> watch = manager;
    EXPECT_TRUE(vendor().hasLiveMonitor());
    manager.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(vendor().hasLiveMonitor());
    vendor().enter(region());  // reaches no one
    vendor().discover(std::vector<platform::NearbyDevice>{{"x", 0, "1", 1, 1}});
    EXPECT_THAT(host_->events, IsEmpty());
}

// A ranged beacon's distance estimate, as the visit events name it: under half a metre immediate, under three
// near, farther far, and a negative estimate (the radio could not tell) unknown.
TEST(VisitEventProximity, EachBandStartsAtItsBoundary) {
    using events::Proximity;
    const std::vector<std::pair<double, Proximity>> cases{
        {-1.0, Proximity::Unknown},     {-0.001, Proximity::Unknown}, {0.0, Proximity::Immediate},
        {0.4999, Proximity::Immediate}, {0.5, Proximity::Near},       {2.9999, Proximity::Near},
        {3.0, Proximity::Far},          {1e9, Proximity::Far}};
    for (const auto& [accuracy, proximity] : cases) {
        EXPECT_EQ(events::proximityName(events::proximityOf(accuracy)), events::proximityName(proximity))
            << accuracy << " m";
    }
}

}  // namespace
}  // namespace pelm
