// A host that stops: what becomes of the visit in progress, told against pelm-server over HTTPS.
#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <gmock/gmock.h>

#include "support/beacon_recorders.hpp"
#include "support/server_fixture.hpp"

namespace pelm {
namespace {

using platform::BeaconRegion;
using platform::RegionState;
using ::testing::Contains;
using ::testing::IsEmpty;

class HostStopTest : public testing::ServerTest {
  protected:
    void SetUp() override {
        ServerTest::SetUp();
        const auto settings = SettingsManager::sharedInstance();
        settings->setAppToken(testing::kToken);
        settings->setApiHost(server_->host());
        settings->setDefaultBeaconUUID(testing::kUuid);
        settings->setKontaktIoAPIKey("kontakt-key");
        manager_ = PelmBeaconManager::make();
        manager_->delegate = host_;
    }
    void TearDown() override {
        manager_.reset();
        ServerTest::TearDown();
    }
    platform::ScriptedBeaconVendor& vendor() { return *platform_->vendor; }
    static BeaconRegion region(std::optional<std::uint16_t> minor = std::nullopt) {
        BeaconRegion r;
        r.proximityUUID = *platform::ProximityUUID::parse(testing::kUuid);
        if (minor) r.major = 1;
        r.minor = minor;
        r.identifier = minor ? "Custom Region" : "PELM Region";
        r.notifyOnEntry = r.notifyOnExit = r.notifyEntryStateOnDisplay = true;
        return r;
    }
    // Into the store and up to the cheese counter: one open log line.
    void walkIn() {
        manager_->startMonitoring();
        vendor().enter(region());
        vendor().range({{*platform::ProximityUUID::parse(testing::kUuid), 1, 11, -65, 2.0}}, region());
        vendor().enter(region(11));
        settle();
        host_->take();
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

    std::shared_ptr<testing::RecordingBeaconDelegate> host_ = std::make_shared<testing::RecordingBeaconDelegate>();
    std::shared_ptr<PelmBeaconManager> manager_;
};

TEST_F(HostStopTest, AVisitInProgressEndsAsLeavingWouldAndIsUploadedOnce) {
    walkIn();
    EXPECT_EQ(stop(), VisitAtStop::uploaded);
    EXPECT_THAT(vendor().takeCalls(), Contains("stopMonitoringForAllRegions"));
    const auto stored = server_->store().sessions();
    ASSERT_EQ(stored.size(), 1u);
    const auto& lines = stored[0]["session_logs"];
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["minor"], "11");
    EXPECT_TRUE(lines[0].contains("exit_time"));
    EXPECT_THAT(host_->take(), Contains("log Session upload successful finished"));

    // The vendor's last words are not acted on: no exit content, no second upload.
    vendor().exit(region(11));
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
    vendor().exit(region(11));
    vendor().exit(region());
    EXPECT_EQ(stop(), VisitAtStop::uploaded);
    EXPECT_EQ(storedVisits(), 1u);
}

TEST_F(HostStopTest, AVisitTheServerRefusesIsReportedLost) {
    walkIn();
    server::PelmServer::Fault refused;
    refused.status = 500;
    server_->setFault("/api/v1/sessions", refused);
    EXPECT_EQ(stop(), VisitAtStop::notUploaded);
    EXPECT_THAT(host_->take(), Contains("log Failed to upload session (critical)"));
}

}  // namespace
}  // namespace pelm
