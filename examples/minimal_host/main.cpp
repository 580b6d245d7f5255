// A host app in one file: it stores the app token (which fetches the app's configuration), then makes a
// beacon manager and a device status manager and runs the Linux run loop until a visit has been uploaded.
// Ctrl-C (or SIGTERM) ends the visit in progress, uploads it and exits within a second.
//
//   minimal_host HOST TOKEN CA_FILE [SCENARIO.json | RECORDING]
//
// HOST is the content server (`localhost:8443` for `pelm serve`), CA_FILE the certificate authority that
// signed its certificate. With no Bluetooth adapter, name a scenario or a recording to take the beacons from.
#include <pelm/pelm.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>

namespace {

// What the host app shows. Every call arrives on the main queue, the thread that runs the loop.
class Host : public pelm::PelmBeaconManagerDelegate, public pelm::PelmDeviceStatusManagerDelegate {
  public:
    explicit Host(pelm::platform::RunLoop& loop) : loop_(loop) {}

    void didFindContent(std::shared_ptr<pelm::Content> content) override {
        const auto name = content->textRecord ? content->textRecord->name : std::nullopt;
        std::printf("content  %s\n", name.value_or("(untitled)").c_str());
        ++contents;
    }
    void didReceiveLog(const std::string& text, bool critical) override {
        std::printf("status   %s%s\n", text.c_str(), critical ? " (critical)" : "");
        // The visit ends when the shopper leaves the store. Its upload and the exit content are asked for
        // together and either may come back first, so the host stops a moment after the upload's answer.
        if (text == "Session upload successful finished" || text == "Failed to upload session") {
            uploaded = text == "Session upload successful finished";
            loop_.postAfter(std::chrono::seconds(2), [this] { loop_.stop(); });
        }
    }
    void didDiscoverBeacons(const std::vector<pelm::DiscoveredBeacon>& beacons) override {
        std::printf("nearby   %zu beacon devices\n", beacons.size());
    }

    void didChangeReachableStatus(pelm::ReachableStatus status) override {
        std::printf("server   %s\n", std::string(pelm::to_string(status)).c_str());
    }
    void didChangeLocationStatus(pelm::LocationStatus status) override {
        std::printf("location %s\n", std::string(pelm::to_string(status)).c_str());
    }
    void didChangeBluetoothStatus(pelm::BluetoothStatus status) override {
        std::printf("bluetooth %s\n", std::string(pelm::to_string(status)).c_str());
    }

    int contents = 0;
    bool uploaded = false;
    std::optional<pelm::VisitAtStop> stopped;  // set when a stop signal ended the run

  private:
    pelm::platform::RunLoop& loop_;
};

pelm::platform::BeaconSource beaconSource(const std::string& file) {
    if (file.empty()) return pelm::platform::BeaconSource::bluetoothAdapter();
    if (file.size() > 5 && file.ends_with(".json")) return pelm::platform::BeaconSource::scenario(file);
    return pelm::platform::BeaconSource::recording(file);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: minimal_host HOST TOKEN CA_FILE [SCENARIO.json | RECORDING]\n");
        return 2;
    }
    const std::string host = argv[1], token = argv[2];
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line shows as it comes, even through a pipe

    // 1. The platform: the loop this thread will run, HTTPS with the server's CA trusted, the beacon source.
    auto loop = std::make_shared<pelm::platform::RunLoop>();
    pelm::platform::LinuxPlatformOptions options;
    options.appName = "minimal-host";
    options.mainQueue = loop;
    options.extraCABundle = argv[3];
    std::shared_ptr<pelm::platform::Platform> platform;
    try {
        options.beaconSource = beaconSource(argc == 5 ? argv[4] : "");
        platform = pelm::platform::makeLinuxPlatform(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "minimal_host: %s\n", error.what());
        return 1;
    }
    pelm::platform::install(platform);

    auto app = std::make_shared<Host>(*loop);
    std::shared_ptr<pelm::PelmBeaconManager> beacons;
    std::shared_ptr<pelm::PelmDeviceStatusManager> status;

    // 2. The token and host. The beacon manager reads the stored settings once, when it is made, so it is
    //    made only once they are stored: one made earlier would stay idle for its whole life.
    pelm::PelmSDK::setAppToken(token, host, [&](bool successful, const std::string& reason) {
        if (!successful) {
            std::fprintf(stderr, "minimal_host: no app configuration: %s\n", reason.c_str());
            loop->stop();
            return;
        }
        beacons = pelm::PelmBeaconManager::make();
        beacons->delegate = app;
        beacons->startMonitoring();

        status = pelm::PelmDeviceStatusManager::make();
        status->delegate = app;
        status->startReachabilityNotifier();
        status->startLocationNotifier();
        status->startBluetoothNotifier();
    });

    // 3. Ctrl-C or SIGTERM: the beacon manager stops and ends the visit in progress as if the shopper left
    //    now, and uploads it. The loop stops with the server's answer, or after 800 ms without one. A second
    //    Ctrl-C ends the program at once.
    loop->onStopSignal([&](int signal) {
        std::printf("stopping on %s\n", signal == SIGINT ? "SIGINT" : "SIGTERM");
        app->stopped = beacons ? pelm::VisitAtStop::notUploaded : pelm::VisitAtStop::none;
        if (!beacons) return loop->stop();
        beacons->stop([&](pelm::VisitAtStop visit) {
            app->stopped = visit;
            loop->stop();
        });
        loop->postAfter(std::chrono::milliseconds(800), [&] { loop->stop(); });
    });

    // 4. The loop: every completion and delegate call of the library runs here, until the visit is uploaded
    //    or a stop signal came. Then the managers go, before the platform and the loop they use.
    loop->run();
    beacons.reset();
    status.reset();
    if (app->stopped) {
        const auto visit = *app->stopped;
        std::printf("%d content%s, %s\n", app->contents, app->contents == 1 ? "" : "s",
                    visit == pelm::VisitAtStop::uploaded ? "visit uploaded at stop"
                    : visit == pelm::VisitAtStop::none
                        ? "no visit in progress at stop"
                        : "visit not uploaded at stop: the server did not take it in time");
        return visit == pelm::VisitAtStop::notUploaded ? 1 : 0;
    }
    std::printf("%d content%s, visit %s\n", app->contents, app->contents == 1 ? "" : "s",
                app->uploaded ? "uploaded" : "not uploaded");
    return app->contents > 0 && app->uploaded ? 0 : 1;
}
