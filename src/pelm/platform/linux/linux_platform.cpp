#include <pelm/platform/linux/linux_platform.hpp>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include <pelm/platform/linux/bounded_file.hpp>
#include <pelm/platform/linux/curl_transport.hpp>
#include <pelm/platform/linux/file_key_value_store.hpp>
#include <pelm/platform/linux/linux_beacon_vendor.hpp>
#include <pelm/platform/linux/linux_bluetooth.hpp>
#include <pelm/platform/linux/linux_reachability.hpp>
#include <pelm/platform/linux/machine_identity.hpp>
#include <pelm/platform/linux/played_beacon_vendor.hpp>
#include <pelm/platform/linux/stderr_log_sink.hpp>
#include <pelm/platform/run_loop.hpp>

namespace pelm::platform {
namespace {

std::filesystem::path defaultConfigRoot() {
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg != nullptr && xdg[0] == '/') {
        return std::filesystem::path(xdg) / "pelm";
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return std::filesystem::path(home) / ".config" / "pelm";
    }
    return std::filesystem::temp_directory_path() / "pelm";
}

// An app name becomes a file name: keep it to one harmless path component.
std::string fileSafe(std::string name) {
    for (char& c : name) {
        if (c == '/' || c == '\0') c = '_';
    }
    if (name.empty() || name == "." || name == "..") name = "app";
    return name;
}

std::shared_ptr<BeaconVendor> beaconVendor(const BeaconSource& source,
                                           const std::shared_ptr<MainQueue>& queue) {
    switch (source.kind) {
        case BeaconSource::Kind::BluetoothAdapter:
            return LinuxBeaconVendor::make(queue);
        case BeaconSource::Kind::Scenario:
            return PlayedBeaconVendor::scenario(queue, source.file);
        case BeaconSource::Kind::Recording:
            return PlayedBeaconVendor::recording(queue, source.file);
        case BeaconSource::Kind::None:
            break;
    }
    return nullptr;
}

}  // namespace

std::string defaultAppName() {
    return fileSafe(program_invocation_short_name);
}

std::filesystem::path settingsFilePath(const LinuxPlatformOptions& options) {
    const auto folder = options.configDirectory.value_or(defaultConfigRoot());
    const auto app = options.appName.empty() ? defaultAppName() : fileSafe(options.appName);
    return folder / (app + ".json");
}

namespace {

// What a CA bundle may weigh: the system's own is a few hundred KiB.
constexpr std::size_t kMaxCABundleBytes = std::size_t{16} << 20;

// A CA file that cannot be used fails every call later, in curl's words ("error setting certificate file",
// taken for an unreachable server); it is named at once instead.
void checkCABundle(const std::filesystem::path& file) {
    const auto contents = readBoundedFile(file, kMaxCABundleBytes);
    if (!contents.bytes) throw std::runtime_error("the CA file " + file.string() + " " + contents.error);
    if (contents.bytes->find("-----BEGIN CERTIFICATE-----") == std::string::npos)
        throw std::runtime_error("the CA file " + file.string() + " holds no PEM certificate");
}

}  // namespace

std::shared_ptr<Platform> makeLinuxPlatform(LinuxPlatformOptions options) {
    if (options.extraCABundle) checkCABundle(*options.extraCABundle);
    if (options.appName.empty()) options.appName = defaultAppName();
    if (options.vendorName.empty()) options.vendorName = options.appName;
    auto platform = std::make_shared<Platform>();
    platform->mainQueue = options.mainQueue ? options.mainQueue : std::make_shared<RunLoop>();
    CurlTransportOptions http;
    http.extraCABundle = options.extraCABundle;
    platform->http = std::make_shared<CurlTransport>(platform->mainQueue, http);
    platform->store = std::make_shared<FileKeyValueStore>(settingsFilePath(options));
    platform->identity =
        std::make_shared<MachineIdentity>(options.vendorName, options.appVersion, options.appBuildVersion);
    platform->log = std::make_shared<StderrLogSink>(options.appName, options.syslog);
    platform->reachability = std::make_shared<LinuxReachability>();
    platform->location = std::make_shared<PolicyLocation>(options.locationAuthorization);
    platform->bluetooth = std::make_shared<LinuxBluetooth>(platform->mainQueue);
    platform->beaconVendor = beaconVendor(options.beaconSource, platform->mainQueue);
    return platform;
}

}  // namespace pelm::platform
