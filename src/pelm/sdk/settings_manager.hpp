#pragma once

#include <memory>
#include <optional>
#include <string>

#include <pelm/platform/device_identity.hpp>
#include <pelm/platform/key_value_store.hpp>

namespace pelm {

/// The four values the library keeps across launches of the host app, and three facts about the device
/// and the app. Nothing is cached: every read goes to the store or the platform, every write straight to
/// the store, and writing none removes the key.
class SettingsManager {
  public:
    // The key texts are the storage format: a later version must find what an earlier one wrote.
    const std::string appTokenKey = "pelm.apptoken";
    const std::string defaultBeaconUUIDKey = "pelm.uuid";
    const std::string kontaktIoAPIKeyKey = "pelm.kontaktioapikey";
    const std::string apiHostKey = "pelm.apihost";

    /// Uses the installed platform's store and identity.
    SettingsManager();
    SettingsManager(std::shared_ptr<platform::KeyValueStore> defaults,
                    std::shared_ptr<platform::DeviceIdentity> identity);

    /// The one shared instance, made on first use (again after another platform is installed).
    static std::shared_ptr<SettingsManager> sharedInstance();

    std::optional<std::string> apiHost() const { return defaults_->get(apiHostKey); }
    void setApiHost(const std::optional<std::string>& value) { put(apiHostKey, value); }
    std::optional<std::string> appToken() const { return defaults_->get(appTokenKey); }
    void setAppToken(const std::optional<std::string>& value) { put(appTokenKey, value); }
    std::optional<std::string> defaultBeaconUUID() const { return defaults_->get(defaultBeaconUUIDKey); }
    void setDefaultBeaconUUID(const std::optional<std::string>& value) { put(defaultBeaconUUIDKey, value); }
    std::optional<std::string> kontaktIoAPIKey() const { return defaults_->get(kontaktIoAPIKeyKey); }
    void setKontaktIoAPIKey(const std::optional<std::string>& value) { put(kontaktIoAPIKeyKey, value); }

    /// The device's per-vendor identifier, or "unkown-ios-user" when the platform has none.
    std::string userID() const;
    std::string appVersion() const { return identity_->appVersion(); }
    std::string appBuildVersion() const { return identity_->appBuildVersion(); }

  private:
    void put(const std::string& key, const std::optional<std::string>& value);

    std::shared_ptr<platform::KeyValueStore> defaults_;
    std::shared_ptr<platform::DeviceIdentity> identity_;
};

}  // namespace pelm
