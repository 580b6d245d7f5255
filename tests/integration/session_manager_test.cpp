// The visit engine against pelm-server over HTTPS, in virtual time: content for beacons entered and left,
// cool-downs, the visit log and its upload as the server stores it.
#include <pelm/sdk/settings_manager.hpp>
#include <pelm/session/pelm_session_manager.hpp>

#include <gmock/gmock.h>

#include "support/recording_session_delegate.hpp"
#include "support/server_fixture.hpp"

namespace pelm {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SessionManagerTest : public testing::ServerTest {
  protected:
    void SetUp() override {
        ServerTest::SetUp();
        ::setenv("TZ", "Europe/Berlin", 1);
        ::tzset();
        const auto settings = SettingsManager::sharedInstance();
        settings->setAppToken(testing::kToken);
        settings->setApiHost(server_->host());
        manager_ = PelmSessionManager::make();
        manager_->delegate = delegate_;
    }
    void TearDown() override {
        manager_.reset();  // and with it the client's hold on the transport and its connection
        ServerTest::TearDown();
    }
    static std::shared_ptr<Beacon> beacon(const char* minor, const char* uuid = testing::kUuid) {
        return std::make_shared<Beacon>(uuid, "1", minor);
    }
    void advance(std::chrono::milliseconds by) { platform_->loop->advance(by); }
    std::size_t lookups() const {
        std::size_t count = 0;
        for (const auto& request : server_->requests())
            count += request.path == "/api/v1/contents/by_hardware";
        return count;
    }
    void serve(const char* body) {
        testing::ServerFault fault;
        fault.status = 200;
        fault.body = body;
        server_->setFault("/api/v1/contents/by_hardware", fault);
    }

    std::shared_ptr<testing::RecordingSessionDelegate> delegate_ =
        std::make_shared<testing::RecordingSessionDelegate>();
    std::shared_ptr<PelmSessionManager> manager_;
};

TEST_F(SessionManagerTest, AVisitFromFirstBeaconToUpload) {
    // Heard: entry content (cool-down 60 s); entered: a log line opens.
    const auto cheese = beacon("11");
    EXPECT_TRUE(manager_->addBeacon(cheese));
    EXPECT_FALSE(manager_->addBeacon(beacon("11")));
    settle();
    manager_->addEntryEvent(cheese);
    EXPECT_THAT(delegate_->take(), ElementsAre("content 1", "line Session Log: major: 1 minor: 11 uuid: " +
                                                                std::string(testing::kUuid)));

    // Left after 5 s: exit content (cool-down 30 s), the line closes.
    advance(5s);
    EXPECT_TRUE(manager_->removeBeacon(beacon("11")));
    settle();
    manager_->addExitEvent(beacon("11"));
    EXPECT_THAT(delegate_->take(), ElementsAre("content 2"));
    ASSERT_EQ(manager_->sessionLogs().size(), 1u);

    // Back at 10 s: both kinds are still hot, nothing is looked up.
    advance(5s);
    const auto before = lookups();
    EXPECT_TRUE(manager_->addBeacon(cheese));
    EXPECT_TRUE(manager_->removeBeacon(cheese));
    settle();
    EXPECT_EQ(lookups(), before);
    EXPECT_THAT(delegate_->take(), ElementsAre("line Beacon is hot until: 2016-07-16 17:21:30 +0000",
                                               "line Beacon is hot until: 2016-07-16 17:21:05 +0000"));

    // At 60 s the entry record has expired: dropped, and a new lookup hands the content on again.
    advance(50s);
    EXPECT_TRUE(manager_->addBeacon(cheese));
    settle();
    manager_->addEntryEvent(cheese);
    EXPECT_EQ(lookups(), before + 1);
    EXPECT_THAT(delegate_->take(),
                ElementsAre("line Beacon is cold, removing from array", "content 1",
                            "line Session Log: major: 1 minor: 11 uuid: " + std::string(testing::kUuid)));
    EXPECT_EQ(manager_->coolDownBeacons().size(), 2u);  // the fresh entry record and the expired exit one

    // The main region is left at 90 s: the open line closes and the visit goes up.
    advance(30s);
    manager_->finishSession();
    settle();
    EXPECT_THAT(delegate_->take(), ElementsAre("line Session upload successful finished"));
    EXPECT_THAT(manager_->sessionLogs(), IsEmpty());
    EXPECT_THAT(manager_->unfinishedSessionLogs(), IsEmpty());

    const auto stored = server_->store().sessions();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0]["session"], JSON::parse(R"({"app_version": "2.4.1", "sdk_version": "1.0.0",
        "operating_system": "iOS", "start_time": "2016-07-16T19:20:30.450+0200", "end_time": "2016-07-16T19:22:00.450+0200"})"));
    EXPECT_EQ(
        stored[0]["beacon"],
        JSON::parse(R"({"uuid": "F7826DA6-4FA2-4E98-8024-BC5B71E0893E", "major": "1", "minor": "11"})"));
    EXPECT_EQ(stored[0]["session_user"], "4F1D2C3B-0000-4000-8000-00000000AB01");
    ASSERT_EQ(stored[0]["session_logs"].size(), 2u);
    EXPECT_EQ(stored[0]["session_logs"][0]["entrance_time"], "2016-07-16T19:20:30.450+0200");
    EXPECT_EQ(stored[0]["session_logs"][0]["exit_time"], "2016-07-16T19:20:35.450+0200");
    EXPECT_EQ(stored[0]["session_logs"][1]["entrance_time"], "2016-07-16T19:21:30.450+0200");
    EXPECT_EQ(stored[0]["session_logs"][1]["exit_time"], "2016-07-16T19:22:00.450+0200");
}

TEST_F(SessionManagerTest, EntryAndExitCoolDownsAreIndependent) {
    const auto cheese = beacon("11");
    manager_->addBeacon(cheese);
    settle();
    advance(40s);  // the exit record will be made now and last 30 s; the entry one ends at 60 s
    manager_->removeBeacon(cheese);
    settle();
    advance(25s);  // 65 s: entry cold, exit hot
    manager_->addBeacon(cheese);
    manager_->removeBeacon(cheese);
    settle();
    EXPECT_THAT(delegate_->take(),
                ElementsAre("content 1", "content 2", "line Beacon is cold, removing from array",
                            "line Beacon is hot until: 2016-07-16 17:21:40 +0000", "content 1"));
    ASSERT_EQ(manager_->coolDownBeacons().size(), 2u);
    EXPECT_EQ(manager_->coolDownBeacons()[0].contentType, Content::DisplayType::exit);
    EXPECT_EQ(manager_->coolDownBeacons()[1].contentType, Content::DisplayType::entry);
}

TEST_F(SessionManagerTest, CoolDownOfZeroIsColdAtOnceAndNoneMakesNoRecord) {
    const auto bread = beacon("12");  // its content has no cool-down
    for (int i = 0; i < 3; ++i) {
        manager_->addBeacon(bread);
        settle();
        manager_->removeBeacon(bread);  // no exit content for this beacon
        settle();
    }
    EXPECT_THAT(delegate_->take(), ElementsAre("content 3", "content 3", "content 3"));
    EXPECT_THAT(manager_->coolDownBeacons(), IsEmpty());

    serve(R"({"status":"successful","content_entry":{"id":7,"cool_down_time":0}})");
    manager_->addBeacon(bread);
    settle();
    manager_->removeBeacon(bread);
    manager_->addBeacon(bread);  // same instant: equal is not hot
    settle();
    EXPECT_THAT(delegate_->take(),
                ElementsAre("content 7", "line Beacon is cold, removing from array", "content 7"));

    serve(R"({"status":"successful","content_entry":{"id":8,"cool_down_time":-60}})");
    manager_->removeBeacon(bread);
    settle();
    manager_->addBeacon(bread);
    settle();
    EXPECT_THAT(delegate_->take(), ElementsAre("line Beacon is cold, removing from array", "content 8"));
}

TEST_F(SessionManagerTest, FailedLookupsAndMissingContentLeaveNoTrace) {
    testing::ServerFault broken;
    broken.status = 500;
    broken.body = "{}";
    server_->setFault("/api/v1/contents/by_hardware", broken);
    const auto cheese = beacon("11");
    manager_->addBeacon(cheese);
    settle();
    EXPECT_THAT(delegate_->take(), IsEmpty());
    EXPECT_THAT(manager_->coolDownBeacons(), IsEmpty());

    // Only the wanted kind counts: exit content in the reply to an entry lookup is ignored.
    serve(R"({"status":"successful","content_exit":{"id":2,"cool_down_time":30}})");
    manager_->removeBeacon(cheese);
    settle();
    manager_->addBeacon(cheese);
    settle();
    EXPECT_THAT(delegate_->take(), ElementsAre("content 2"));
    ASSERT_EQ(manager_->coolDownBeacons().size(), 1u);
    EXPECT_EQ(manager_->coolDownBeacons()[0].contentType, Content::DisplayType::exit);
}

TEST_F(SessionManagerTest, IdentityIsExactAndNeedsAllThreeTexts) {
    auto partial = std::make_shared<Beacon>();
    partial->uuid = testing::kUuid;
    partial->major = "1";
    EXPECT_TRUE(manager_->addBeacon(partial));
    EXPECT_TRUE(manager_->addBeacon(partial));  // matches nothing, not even itself
    EXPECT_FALSE(manager_->removeBeacon(partial));
    EXPECT_EQ(manager_->discoveredBeacons().size(), 2u);

    EXPECT_TRUE(manager_->addBeacon(beacon("11")));
    EXPECT_TRUE(manager_->addBeacon(beacon("11", "f7826da6-4fa2-4e98-8024-bc5b71e0893e")));
    EXPECT_FALSE(manager_->removeBeacon(beacon("99")));
    manager_->addEntryEvent(partial);
    manager_->addExitEvent(beacon("11"));  // nothing open: ignored
    settle();
    EXPECT_THAT(manager_->unfinishedSessionLogs(), IsEmpty());
    EXPECT_THAT(manager_->sessionLogs(), IsEmpty());
}

TEST_F(SessionManagerTest, ABeaconTheHostChangesIsFoundByWhatItIsNow) {
    auto held = beacon("11");
    EXPECT_TRUE(manager_->addBeacon(held));
    held->minor = "12";                              // the host reuses its object for another beacon
    EXPECT_TRUE(manager_->addBeacon(beacon("11")));  // 1/11 is no longer in the list
    EXPECT_FALSE(manager_->addBeacon(beacon("12")));
    EXPECT_TRUE(manager_->removeBeacon(beacon("12")));
    EXPECT_TRUE(manager_->removeBeacon(beacon("11")));
    EXPECT_THAT(manager_->discoveredBeacons(), IsEmpty());
}

TEST_F(SessionManagerTest, OpenLinesCloseFromTheBackAndTheEndClosesOnlyTheFirst) {
    const auto cheese = beacon("11"), bread = beacon("12");
    manager_->addEntryEvent(cheese);
    advance(1s);
    manager_->addEntryEvent(bread);
    advance(1s);
    manager_->addEntryEvent(cheese);  // a second open line for the same beacon
    advance(1s);
    manager_->addExitEvent(beacon("11"));
    ASSERT_EQ(manager_->sessionLogs().size(), 1u);
    EXPECT_EQ(manager_->sessionLogs()[0]->entranceTime, testing::kStart + 2s);  // the later-opened line
    ASSERT_EQ(manager_->unfinishedSessionLogs().size(), 2u);

    // The end of the visit closes the first open line, keeps it among the open ones, and a second finish
    // before the first upload completes sends the same lines again.
    manager_->finishSession();
    ASSERT_EQ(manager_->sessionLogs().size(), 2u);
    EXPECT_EQ(manager_->unfinishedSessionLogs().front(), manager_->sessionLogs().back());
    manager_->finishSession();
    EXPECT_EQ(manager_->sessionLogs().size(), 2u);
    manager_->addEntryEvent(bread);  // recorded while the uploads are in flight: dropped with the visit
    settle();
    EXPECT_THAT(manager_->sessionLogs(), IsEmpty());
    EXPECT_THAT(manager_->unfinishedSessionLogs(), IsEmpty());
    // Both uploads arrive; the server keeps the same visit once.
    const auto requests = server_->requests();
    EXPECT_EQ(
        std::count_if(requests.begin(), requests.end(), [](const auto& r) { return r.method == "POST"; }), 2);
    const auto stored = server_->store().sessions();
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0]["session_logs"][1]["minor"], "11");
    EXPECT_EQ(stored[0]["session"]["start_time"], "2016-07-16T19:20:32.450+0200");
}

TEST_F(SessionManagerTest, EndingAVisitWithoutLinesOrWithAFailedUpload) {
    manager_->finishSession();
    EXPECT_THAT(delegate_->take(),
                ElementsAre("line Cant' finish session, session logs array is empty (critical)"));

    testing::ServerFault refused;
    refused.status = 503;
    refused.body = R"({"status":"error"})";
    server_->setFault("/api/v1/sessions", refused);
    manager_->addEntryEvent(beacon("11"));
    manager_->finishSession();
    settle();
    EXPECT_THAT(delegate_->take(),
                ElementsAre("line Session Log: major: 1 minor: 11 uuid: " + std::string(testing::kUuid),
                            "line Failed to upload session (critical)"));
    EXPECT_THAT(manager_->sessionLogs(), IsEmpty());
    EXPECT_THAT(manager_->unfinishedSessionLogs(), IsEmpty());
}

TEST_F(SessionManagerTest, WithoutAClientLinesSurviveTheEndOfAVisit) {
    SettingsManager::sharedInstance()->setAppToken(std::nullopt);
    const auto offline = PelmSessionManager::make();
    SettingsManager::sharedInstance()->setAppToken(testing::kToken);  // too late for this manager
    offline->delegate = delegate_;
    EXPECT_FALSE(offline->hasAPIClient());
    EXPECT_TRUE(offline->addBeacon(beacon("11")));
    offline->addEntryEvent(beacon("11"));
    offline->finishSession();
    offline->finishSession();
    settle();
    EXPECT_EQ(offline->sessionLogs().size(), 1u);
    EXPECT_TRUE(server_->requests().empty());
    EXPECT_EQ(delegate_->take().size(), 1u);  // just the log line's status
}

TEST_F(SessionManagerTest, ACompletionActsOnTheListsAsTheyAreWhenItRuns) {
    const auto cheese = beacon("11");
    manager_->addBeacon(cheese);
    manager_->removeBeacon(cheese);  // left before the entry lookup came back; exit lookup starts too
    settle();
    EXPECT_THAT(delegate_->events, ::testing::UnorderedElementsAre("content 1", "content 2"));
    EXPECT_EQ(manager_->coolDownBeacons().size(), 2u);
    EXPECT_THAT(manager_->discoveredBeacons(), IsEmpty());
}

TEST_F(SessionManagerTest, InFlightCallsKeepTheManagerAliveButNotItsDelegate) {
    std::weak_ptr<PelmSessionManager> watch = manager_;
    manager_->addBeacon(beacon("11"));
    manager_->addEntryEvent(beacon("11"));
    manager_->finishSession();
    manager_.reset();
    delegate_.reset();
    EXPECT_FALSE(watch.expired());
    settle();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(server_->store().sessions().size(), 1u);
}

TEST_F(SessionManagerTest, ANewSessionRecordStartsWhenToldAndEndsNow) {
    advance(90s);
    const auto session = manager_->initSession(testing::kStart);
    EXPECT_EQ(session->startTime, testing::kStart);
    EXPECT_EQ(session->endTime, testing::kStart + 90s);
    EXPECT_EQ(session->appVersion, "2.4.1");
    EXPECT_EQ(session->sdkVersion, "1.0.0");
    EXPECT_EQ(session->operatingSystem, "iOS");
}

}  // namespace
}  // namespace pelm
