#include <cstdio>
#include <filesystem>

#include <pelm/platform/linux/linux_platform.hpp>

#include "cli.hpp"

namespace pelm::cli {

int settingsCommand(const Arguments& args) {
    platform::LinuxPlatformOptions options;
    options.appName = args.option("app").value_or(platform::defaultAppName());
    if (auto dir = args.option("config-dir")) options.configDirectory = *dir;
    auto services = platform::makeLinuxPlatform(options);
    const SettingsManager settings(services->store, services->identity);
    const auto file = platform::settingsFilePath(options);
    std::printf("Settings of %s (%s%s)\n", options.appName.c_str(), file.c_str(),
                std::filesystem::exists(file) ? "" : ", not written yet");
    printSettings(settings, args);
    std::printf("  %-22s %s\n", "user id", settings.userID().c_str());
    return 0;
}

}  // namespace pelm::cli
