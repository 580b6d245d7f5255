// The configuration bootstrap end to end: what setAppToken stores, when, and what a failure leaves alone.
#include <pelm/api/pelm_api_client.hpp>
#include <pelm/pelm_sdk.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <gmock/gmock.h>

#include "support/server_fixture.hpp"

namespace pelm {
namespace {

using ::testing::ElementsAre;

class PelmSDKTest : public testing::ServerTest {
  protected:
    std::shared_ptr<SettingsManager> settings() const { return SettingsManager::sharedInstance(); }
    std::vector<bool> setAppToken(const std::string& token) {
        std::vector<bool> outcomes;
        PelmSDK::setAppToken(token, server_->host(), [&](bool ok) { outcomes.push_back(ok); });
        settle();
        return outcomes;
    }
};

TEST_F(PelmSDKTest, StoresTokenAndHostAtOnceAndTheBeaconSettingsOnSuccess) {
    PelmSDK::setAppToken(testing::kToken, server_->host());
    EXPECT_EQ(settings()->appToken(), testing::kToken);
    EXPECT_EQ(settings()->apiHost(), server_->host());
    EXPECT_EQ(settings()->kontaktIoAPIKey(), std::nullopt);
    settle();
    EXPECT_EQ(settings()->defaultBeaconUUID(), testing::kUuid);
    EXPECT_EQ(settings()->kontaktIoAPIKey(), "kontakt-key");
    EXPECT_TRUE(lines().empty());
}

TEST_F(PelmSDKTest, AFailureKeepsTheBeaconSettingsButStoresTokenAndHost) {
    settings()->setDefaultBeaconUUID("kept-uuid");
    settings()->setKontaktIoAPIKey("kept-key");
    EXPECT_THAT(setAppToken("unknown-token"), ElementsAre(false));
    EXPECT_EQ(settings()->appToken(), "unknown-token");
    EXPECT_EQ(settings()->defaultBeaconUUID(), "kept-uuid");
    EXPECT_EQ(settings()->kontaktIoAPIKey(), "kept-key");
    EXPECT_THAT(lines(), ElementsAre("[PELM][ERROR] Response status code was unacceptable: 401."));

    server_->stop();
    EXPECT_THAT(setAppToken(testing::kToken), ElementsAre(false));
    EXPECT_EQ(settings()->kontaktIoAPIKey(), "kept-key");
    EXPECT_NE(PelmAPIClient::make(), nullptr);
}

TEST_F(PelmSDKTest, AFailureTellsTheHostWhatToCheck) {
    std::vector<std::pair<bool, std::string>> answers;
    const auto ask = [&](const std::string& token, const std::string& host) {
        answers.clear();
        PelmSDK::setAppToken(token, host,
                             [&](bool ok, const std::string& why) { answers.emplace_back(ok, why); });
        settle();
        EXPECT_EQ(answers.size(), 1u);
        return answers.empty() ? std::pair<bool, std::string>{} : answers.front();
    };
    EXPECT_EQ(ask(testing::kToken, server_->host()), std::pair(true, std::string()));
    const auto host = server_->host();
    EXPECT_EQ(ask("unknown-token", host).second,
              "the server " + host + " does not know this app token (HTTP 401); check the token");

    testing::ServerFault fault;
    fault.status = 503;
    server_->setFault("/api/v1/app_config/by_app_token", fault);
    EXPECT_EQ(ask(testing::kToken, host).second,
              "the server " + host + " answered HTTP 503; try again later, or ask its operator");
    fault.status = 200;
    fault.body = "<html>captive portal</html>";
    server_->setFault("/api/v1/app_config/by_app_token", fault);
    EXPECT_EQ(
        ask(testing::kToken, host).second,
        "the server " + host +
            " answered with something that is not an app configuration: The reply could not be read: its "
            "body is not valid JSON");

    // A server that answered, with what cannot be taken, was reached: it is not called unreachable.
    fault.body = std::string(2 << 20, ' ') + "{}";
    server_->setFault("/api/v1/app_config/by_app_token", fault);
    EXPECT_EQ(ask(testing::kToken, host).second,
              "the server " + host +
                  " answered with something that is not an app configuration: The reply body is larger than "
                  "1048576 bytes");
    fault.body = std::string(1100, '[') + std::string(1100, ']');
    server_->setFault("/api/v1/app_config/by_app_token", fault);
    EXPECT_EQ(
        ask(testing::kToken, host).second,
        "the server " + host +
            " answered with something that is not an app configuration: The reply could not be read: its "
            "body nests deeper than 1023 levels");
    server_->clearFaults();

    // Too long for the server, too long for curl to make, too long for a URL.
    EXPECT_EQ(
        ask(std::string(1'000'000, 'a'), host).second,
        "the server " + host +
            " refused the request as too long (HTTP 431): the app token is 1000000 bytes; check the token");
    EXPECT_EQ(ask(std::string(1'100'000, 'a'), host).second,
              "nothing was sent: The request could not be made: it is larger than curl sends (1 MiB)");
    const auto tooLong = ask(std::string(9'000'000, 'a'), host).second;
    EXPECT_TRUE(tooLong.starts_with("nothing was sent: Refused to send a request whose URL would be 90000"))
        << tooLong;
    EXPECT_EQ(
        ask("\xFF", host),
        std::pair(false, std::string("the app token and the host must be UTF-8 text; nothing was stored")));
    server_->stop();
    const auto unreachable = ask(testing::kToken, host);
    EXPECT_FALSE(unreachable.first);
    EXPECT_TRUE(unreachable.second.starts_with("the server " + host + " could not be reached: "))
        << unreachable.second;
}

TEST_F(PelmSDKTest, AConfigurationWithoutAValueRemovesIt) {
    settings()->setKontaktIoAPIKey("old-key");
    EXPECT_THAT(setAppToken("no-vendor-key"), ElementsAre(true));
    EXPECT_EQ(settings()->kontaktIoAPIKey(), std::nullopt);
    EXPECT_EQ(settings()->defaultBeaconUUID(), testing::kUuid);

    testing::ServerFault noConfig;
    noConfig.status = 200;
    noConfig.body = R"({"status":"error"})";
    server_->setFault("/api/v1/app_config/by_app_token", noConfig);
    EXPECT_THAT(setAppToken(testing::kToken), ElementsAre(true));
    EXPECT_EQ(settings()->defaultBeaconUUID(), std::nullopt);
    EXPECT_EQ(settings()->kontaktIoAPIKey(), std::nullopt);
}

TEST_F(PelmSDKTest, AnalyticsSetupStoresNothingAndCallsNoServer) {
    PelmSDK::setupGoogleAnalytics("UA-12345-6");
    PelmSDK::setupGoogleAnalytics("");
    settle();
    EXPECT_TRUE(server_->requests().empty());
    EXPECT_EQ(settings()->appToken(), std::nullopt);
    EXPECT_TRUE(lines().empty());
}

TEST_F(PelmSDKTest, ClientFromSettingsNeedsTokenThenHost) {
    EXPECT_EQ(PelmAPIClient::make(), nullptr);
    settings()->setApiHost("h");
    EXPECT_EQ(PelmAPIClient::make(), nullptr);
    settings()->setApiHost(std::nullopt);
    settings()->setAppToken("t");
    EXPECT_EQ(PelmAPIClient::make(), nullptr);
    EXPECT_THAT(lines(), ElementsAre("[PELM][ERROR] No app token set.", "[PELM][ERROR] No app token set.",
                                     "[PELM][ERROR] No api host set."));
}

}  // namespace
}  // namespace pelm
