#pragma once

#include <pelm/export.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <pelm/platform/platform.hpp>

namespace pelm::platform {

/// What a host tells the Linux platform about itself. Every field has a sensible default.
struct PELM_EXPORT LinuxPlatformOptions {
    /// Names the settings file; defaults to the running program's name.
    std::string appName;
    /// Folder for the settings file; defaults to $XDG_CONFIG_HOME/pelm (or ~/.config/pelm).
    std::optional<std::filesystem::path> configDirectory;
    /// Mixed into the device identifier, so apps of one vendor share it; defaults to the app name.
    std::string vendorName;
    std::string appVersion;
    std::string appBuildVersion;
    /// Certificates trusted besides the system's, for a server with a certificate of its own making.
    std::optional<std::filesystem::path> extraCABundle;
    /// The location authorisation this machine grants (a Linux device has no prompt): 3, "always", unless
    /// the host says otherwise.
    int locationAuthorization = 3;
    /// Also send log lines to syslog.
    bool syslog = false;
    /// Listen for beacons through BlueZ, when it has an adapter. Without one there is no beacon vendor.
    bool beacons = true;
};

/// The settings file a Linux host app with these options uses.
PELM_EXPORT std::filesystem::path settingsFilePath(const LinuxPlatformOptions& options);

/// The running program's short name, the default app name.
PELM_EXPORT std::string defaultAppName();

/// The Linux platform. Its main queue is a RunLoop: the host runs it (see run_loop.hpp), and every
/// completion of the library arrives there.
PELM_EXPORT std::shared_ptr<Platform> makeLinuxPlatform(LinuxPlatformOptions options);

}  // namespace pelm::platform
