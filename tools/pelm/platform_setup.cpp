#include <cstdio>

#include <pelm/platform/linux/linux_platform.hpp>
#include <pelm/platform/run_loop.hpp>

#include "cli.hpp"
#include "token_mask.hpp"

namespace pelm::cli {

std::shared_ptr<platform::Platform> installPlatform(const Arguments& args) {
    platform::LinuxPlatformOptions options;
    options.appName = args.option("app").value_or("");
    if (auto dir = args.option("config-dir")) options.configDirectory = *dir;
    if (auto ca = args.option("ca")) options.extraCABundle = *ca;
    options.appVersion = "pelm-cli";
    auto services = platform::makeLinuxPlatform(options);
    platform::install(services);
    return services;
}

bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto* loop = dynamic_cast<platform::RunLoop*>(platform::current()->mainQueue.get());
    return loop != nullptr && loop->runUntil(done, timeout);
}

void printSettings(const SettingsManager& settings, bool showToken) {
    const auto show = [](const std::string& key, const std::optional<std::string>& value) {
        std::printf("  %-22s %s\n", key.c_str(), value ? ("\"" + *value + "\"").c_str() : "(not set)");
    };
    auto token = settings.appToken();
    if (token && !showToken) token = maskedToken(*token) + " (--show-token shows it whole)";
    show(settings.appTokenKey, token);
    show(settings.apiHostKey, settings.apiHost());
    show(settings.defaultBeaconUUIDKey, settings.defaultBeaconUUID());
    show(settings.kontaktIoAPIKeyKey, settings.kontaktIoAPIKey());
}

}  // namespace pelm::cli
