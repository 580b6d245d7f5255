#include <pelm/pelm_sdk.hpp>

#include <pelm/analytics/google_analytics_manager.hpp>
#include <pelm/api/pelm_api_client.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/settings_manager.hpp>

namespace pelm {
namespace {

// Fetches the configuration and stores its beacon UUID and vendor key.
void updateAppConfig(const std::string& appToken, const std::string& apiHost,
                     std::function<void(bool successful)> completion) {
    // The client may go at once: its call completes without it.
    PelmAPIClient(appToken, apiHost)
        .appConfig([completion](bool successful, std::shared_ptr<AppConfig> config) {
            if (successful) {
                // A configuration without a value removes what an earlier one stored.
                const auto settings = SettingsManager::sharedInstance();
                settings->setDefaultBeaconUUID(config ? config->defaultBeaconUUID : std::nullopt);
                settings->setKontaktIoAPIKey(config ? config->kontaktIoAPIKey : std::nullopt);
            }
            if (completion) completion(successful);
        });
}

}  // namespace

void PelmSDK::setAppToken(const std::string& token, const std::string& host,
                          std::function<void(bool successful)> completion) {
    if (!isValidUTF8(token) || !isValidUTF8(host)) {
        // Neither could be stored or sent as given; a replacement would be a token nobody issued.
        Log::error("The app token and api host must be UTF-8 text; nothing was stored.");
        if (completion) platform::current()->mainQueue->post([completion] { completion(false); });
        return;
    }
    const auto settings = SettingsManager::sharedInstance();
    settings->setAppToken(token);
    settings->setApiHost(host);
    updateAppConfig(token, host, std::move(completion));
}

void PelmSDK::setupGoogleAnalytics(const std::string& trackingID) {
    GoogleAnalyticsManager::setupGoogleAnalytics(trackingID);
}

}  // namespace pelm
