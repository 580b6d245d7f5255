#include <pelm/sdk/pelm_constants.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <gtest/gtest.h>

#include <thread>

#include "support/test_platform.hpp"

namespace pelm {
namespace {

TEST(SettingsManager, FreshInstallHasNothingAndSettingNoneRemovesTheKey) {
    testing::TestPlatform platform;
    const auto settings = SettingsManager::sharedInstance();
    EXPECT_EQ(settings->appToken(), std::nullopt);
    EXPECT_EQ(settings->apiHost(), std::nullopt);
    EXPECT_EQ(settings->defaultBeaconUUID(), std::nullopt);
    EXPECT_EQ(settings->kontaktIoAPIKey(), std::nullopt);
    EXPECT_EQ(PelmConstants::apiURL(), std::nullopt);

    settings->setAppToken("tok");
    settings->setApiHost("content.example:8443");
    settings->setDefaultBeaconUUID("f7826da6-4fa2-4e98-8024-bc5b71e0893e");
    settings->setKontaktIoAPIKey("key");
    // The key texts are the storage format.
    EXPECT_EQ(platform.store->get("pelm.apptoken"), "tok");
    EXPECT_EQ(platform.store->get("pelm.apihost"), "content.example:8443");
    EXPECT_EQ(platform.store->get("pelm.uuid"), "f7826da6-4fa2-4e98-8024-bc5b71e0893e");
    EXPECT_EQ(platform.store->get("pelm.kontaktioapikey"), "key");

    settings->setKontaktIoAPIKey(std::nullopt);
    EXPECT_FALSE(platform.store->contains("pelm.kontaktioapikey"));
    EXPECT_EQ(settings->kontaktIoAPIKey(), std::nullopt);
}

TEST(SettingsManager, ReadsGoToTheStoreEveryTime) {
    testing::TestPlatform platform;
    const auto settings = SettingsManager::sharedInstance();
    platform.store->set("pelm.apptoken", "written-behind-its-back");
    EXPECT_EQ(settings->appToken(), "written-behind-its-back");
}

TEST(SettingsManager, UserIdIsTheVendorIdentifierOrTheFixedFallback) {
    {
        testing::TestPlatform platform("0A0B0C0D-0000-4000-8000-000000000001");
        EXPECT_EQ(SettingsManager::sharedInstance()->userID(), "0A0B0C0D-0000-4000-8000-000000000001");
        EXPECT_EQ(SettingsManager::sharedInstance()->appVersion(), "2.4.1");
        EXPECT_EQ(SettingsManager::sharedInstance()->appBuildVersion(), "241");
    }
    testing::TestPlatform platform(std::nullopt);
    EXPECT_EQ(SettingsManager::sharedInstance()->userID(), "unkown-ios-user");
    EXPECT_EQ(SettingsManager::sharedInstance()->userID(), "unkown-ios-user");
}

TEST(SettingsManager, SharedInstanceIsMadeOnceUnderConcurrentFirstUse) {
    testing::TestPlatform platform;
    std::vector<SettingsManager*> seen(8);
    std::vector<std::thread> threads;
    for (auto& slot : seen) {
        threads.emplace_back([&slot] { slot = SettingsManager::sharedInstance().get(); });
    }
    for (auto& thread : threads) thread.join();
    for (auto* instance : seen) EXPECT_EQ(instance, seen.front());
}

TEST(PelmConstants, ApiHostIsASnapshotWhileApiUrlFollowsTheStore) {
    testing::TestPlatform platform;
    const auto settings = SettingsManager::sharedInstance();
    settings->setApiHost("first.example");
    EXPECT_EQ(PelmConstants::apiHost(), "first.example");
    settings->setApiHost("second.example/with path");
    EXPECT_EQ(PelmConstants::apiHost(), "first.example");
    // Taken as stored: no trimming, no escaping, nothing appended.
    EXPECT_EQ(PelmConstants::apiURL(), "https://second.example/with path");
    settings->setApiHost(std::nullopt);
    EXPECT_EQ(PelmConstants::apiURL(), std::nullopt);
    EXPECT_EQ(PelmConstants::apiHost(), "first.example");
}

}  // namespace
}  // namespace pelm
