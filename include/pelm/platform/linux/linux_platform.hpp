#pragma once

#include <pelm/export.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <pelm/platform/platform.hpp>

namespace pelm::platform {

/// Where the Linux platform's beacons come from. A scenario or a recording lets a host app be tried in a
/// store that does not exist yet, with no adapter and no beacons: its advertisements are played in real time
/// into the same region engine the adapter would feed, once the first region monitor or device scanner is
/// made.
/// \ingroup host_api
struct BeaconSource {
    /// Where the advertisements come from.
    enum class Kind {
        /// BlueZ's adapter, when it has one; without one there is no beacon vendor.
        BluetoothAdapter,
        /// A simulated store (the JSON form of `pelm simulate`): a shopper walks its path once.
        Scenario,
        /// A recording (btsnoop, pcap, pcapng or the JSON trace of `pelm record`), played once.
        Recording,
        /// No beacons at all: the radio is left alone.
        None,
    };
    /// The source's kind.
    Kind kind = Kind::BluetoothAdapter;
    /// The scenario or recording file.
    std::filesystem::path file;

    /// The machine's Bluetooth adapter.
    static BeaconSource bluetoothAdapter() { return {}; }
    /// A simulated store, from its JSON file.
    static BeaconSource scenario(std::filesystem::path file) { return {Kind::Scenario, std::move(file)}; }
    /// A recording, from its file.
    static BeaconSource recording(std::filesystem::path file) { return {Kind::Recording, std::move(file)}; }
    /// No beacons.
    static BeaconSource none() { return {Kind::None, {}}; }
};

/// What a host tells the Linux platform about itself. Every field has a sensible default.
/// \ingroup host_api
struct LinuxPlatformOptions {
    /// Names the settings file; defaults to the running program's name.
    std::string appName;
    /// Folder for the settings file; defaults to $XDG_CONFIG_HOME/pelm (or ~/.config/pelm).
    std::optional<std::filesystem::path> configDirectory;
    /// Mixed into the device identifier, so apps of one vendor share it; defaults to the app name.
    std::string vendorName;
    /// The host app's version, for visit records.
    std::string appVersion;
    /// The host app's build, for visit records.
    std::string appBuildVersion;
    /// Certificates trusted besides the system's, for a server with a certificate of its own making.
    std::optional<std::filesystem::path> extraCABundle;
    /// The location authorisation this machine grants (a Linux device has no prompt): 3, "always", unless
    /// the host says otherwise.
    int locationAuthorization = 3;
    /// Also send log lines to syslog.
    bool syslog = false;
    /// Where beacons come from: the Bluetooth adapter, unless the host names a file to play instead.
    BeaconSource beaconSource;
    /// The library's thread. A host that runs an event loop of its own hands in a MainQueue over it; left
    /// empty, the platform makes a RunLoop, and the host runs it (then it is the platform's `mainQueue`).
    std::shared_ptr<MainQueue> mainQueue;
};

/// The settings file a Linux host app with these options uses.
PELM_EXPORT std::filesystem::path settingsFilePath(const LinuxPlatformOptions& options);

/// The running program's short name, the default app name.
PELM_EXPORT std::string defaultAppName();

/// The Linux platform. Every completion and delegate call of the library arrives on its main queue: the
/// options' own, or a RunLoop that the host runs (see run_loop.hpp). Throws std::runtime_error naming the
/// file when the beacon source is a scenario or recording that cannot be read, or when `extraCABundle`
/// cannot be read or holds no PEM certificate.
/// \ingroup host_api
PELM_EXPORT std::shared_ptr<Platform> makeLinuxPlatform(LinuxPlatformOptions options);

}  // namespace pelm::platform
