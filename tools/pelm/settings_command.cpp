#include <cstdio>
#include <iostream>

#include <pelm/platform/linux/file_key_value_store.hpp>
#include <pelm/platform/linux/linux_platform.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include "cli.hpp"

namespace pelm::cli {

int settingsCommand(const Arguments& args) {
    platform::LinuxPlatformOptions options;
    options.appName = args.option("app").value_or("");
    if (auto dir = args.option("config-dir")) options.configDirectory = *dir;
    auto platform = platform::makeLinuxPlatform(options);
    const SettingsManager settings(platform->store, platform->identity);
    const auto file = platform::settingsFilePath(options);

    std::cout << "Settings of " << options.appName << (options.appName.empty() ? platform::defaultAppName() : "")
              << " (" << file.string() << (std::filesystem::exists(file) ? "" : ", not written yet") << ")\n";
    const auto show = [](const std::string& key, const std::optional<std::string>& value) {
        std::printf("  %-22s %s\n", key.c_str(), value ? ("\"" + *value + "\"").c_str() : "(not set)");
    };
    show(settings.appTokenKey, settings.appToken());
    show(settings.apiHostKey, settings.apiHost());
    show(settings.defaultBeaconUUIDKey, settings.defaultBeaconUUID());
    show(settings.kontaktIoAPIKeyKey, settings.kontaktIoAPIKey());
    std::printf("  %-22s %s\n", "user id", settings.userID().c_str());
    return 0;
}

}  // namespace pelm::cli
