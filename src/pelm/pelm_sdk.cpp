#include <pelm/pelm_sdk.hpp>

#include <pelm/analytics/google_analytics_manager.hpp>
#include <pelm/api/pelm_api_client.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/settings_manager.hpp>

namespace pelm {
namespace {

// A log line as a clause of a longer sentence.
std::string clause(std::string text) {
    while (!text.empty() && (text.back() == '.' || text.back() == ' ')) text.pop_back();
    return text;
}

// What a host can do about a failed fetch, in its words.
std::string reasonFor(const PelmAPIClient::Failure& failure, const std::string& token,
                      const std::string& host) {
    using Kind = PelmAPIClient::Failure::Kind;
    const auto server = "the server " + host;
    const auto code = " (HTTP " + std::to_string(failure.status) + ")";
    switch (failure.kind) {
        case Kind::notSent:
            return "nothing was sent: " + clause(failure.text);
        case Kind::noReply:
            return server + " could not be reached: " + clause(failure.text);
        case Kind::unreadable:
            return server +
                   " answered with something that is not an app configuration: " + clause(failure.text);
        case Kind::status:
            break;
    }
    switch (failure.status) {
        case 401:
        case 403:
            return server + " does not know this app token" + code + "; check the token";
        case 404:
            return server + " has no app configuration to give" + code + "; check the host";
        case 414:
        case 431:
            return server + " refused the request as too long" + code + ": the app token is " +
                   std::to_string(token.size()) + " bytes; check the token";
        default:
            return server + " answered HTTP " + std::to_string(failure.status) +
                   "; try again later, or ask its operator";
    }
}

using Completion = std::function<void(bool successful, const std::string& reason)>;

// Fetches the configuration and stores its beacon UUID and vendor key.
void updateAppConfig(const std::string& appToken, const std::string& apiHost, Completion completion) {
    // The client may go at once: its call completes without it.
    PelmAPIClient(appToken, apiHost)
        .appConfigOrFailure([completion, appToken, apiHost](std::shared_ptr<AppConfig> config,
                                                            const PelmAPIClient::Failure* failure) {
            if (config) {
                // A configuration without a value removes what an earlier one stored.
                const auto settings = SettingsManager::sharedInstance();
                settings->setDefaultBeaconUUID(config->defaultBeaconUUID);
                settings->setKontaktIoAPIKey(config->kontaktIoAPIKey);
            }
            if (completion)
                completion(config != nullptr, failure ? reasonFor(*failure, appToken, apiHost) : "");
        });
}

}  // namespace

void PelmSDK::setAppToken(const std::string& token, const std::string& host,
                          std::function<void(bool successful)> completion) {
    Completion withoutReason;
    if (completion)
        withoutReason = [completion](bool successful, const std::string&) { completion(successful); };
    setAppToken(token, host, std::move(withoutReason));
}

void PelmSDK::setAppToken(const std::string& token, const std::string& host, Completion completion) {
    if (!isValidUTF8(token) || !isValidUTF8(host)) {
        // Neither could be stored or sent as given; a replacement would be a token nobody issued.
        Log::error("The app token and api host must be UTF-8 text; nothing was stored.");
        if (completion) {
            platform::current()->mainQueue->post([completion] {
                completion(false, "the app token and the host must be UTF-8 text; nothing was stored");
            });
        }
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
