#include <pelm/sdk/settings_manager.hpp>

#include <mutex>

#include <pelm/platform/platform.hpp>

namespace pelm {

SettingsManager::SettingsManager()
    : SettingsManager(platform::current()->store, platform::current()->identity) {}

SettingsManager::SettingsManager(std::shared_ptr<platform::KeyValueStore> defaults,
                                 std::shared_ptr<platform::DeviceIdentity> identity)
    : defaults_(std::move(defaults)), identity_(std::move(identity)) {}

std::shared_ptr<SettingsManager> SettingsManager::sharedInstance() {
    static std::mutex mutex;
    static std::weak_ptr<const platform::Platform> madeFor;
    static std::shared_ptr<SettingsManager> instance;
    const auto platform = platform::current();
    std::lock_guard lock(mutex);
    if (!instance || madeFor.lock() != platform) {
        instance = std::make_shared<SettingsManager>(platform->store, platform->identity);
        madeFor = platform;
    }
    return instance;
}

std::string SettingsManager::userID() const {
    return identity_->vendorIdentifier().value_or("unkown-ios-user");
}

void SettingsManager::put(const std::string& key, const std::optional<std::string>& value) {
    if (value) {
        defaults_->set(key, *value);
    } else {
        defaults_->remove(key);
    }
}

}  // namespace pelm
