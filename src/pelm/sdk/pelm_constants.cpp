#include <pelm/sdk/pelm_constants.hpp>

#include <memory>
#include <mutex>

#include <pelm/sdk/settings_manager.hpp>

namespace pelm {

std::optional<std::string> PelmConstants::apiHost() {
    static std::mutex mutex;
    static std::weak_ptr<SettingsManager> takenFrom;
    static std::optional<std::string> snapshot;
    const auto settings = SettingsManager::sharedInstance();
    std::lock_guard lock(mutex);
    // One snapshot per shared settings instance, which is one per process unless a new platform is installed.
    if (takenFrom.lock() != settings) {
        snapshot = settings->apiHost();
        takenFrom = settings;
    }
    return snapshot;
}

std::optional<std::string> PelmConstants::apiURL() {
    auto host = SettingsManager::sharedInstance()->apiHost();
    if (!host) return std::nullopt;
    return "https://" + *host;
}

}  // namespace pelm
