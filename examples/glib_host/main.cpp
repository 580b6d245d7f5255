// The minimal host on a GLib main loop, as a GTK kiosk or any app with an event loop of its own would embed
// the library: the library's main queue is the app's GMainContext, so content arrives between the app's own
// events, in the thread that runs them, and there is no second loop to run.
//
//   glib_host HOST TOKEN CA_FILE [SCENARIO.json | RECORDING]
#include <glib-unix.h>
#include <glib.h>
#include <pelm/pelm.hpp>

#include <csignal>
#include <cstdio>
#include <string>

#include "glib_main_queue.hpp"

namespace {

gboolean quitLoop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

class Host : public pelm::PelmBeaconManagerDelegate, public pelm::PelmDeviceStatusManagerDelegate {
  public:
    explicit Host(GMainLoop* loop) : loop_(loop) {}

    void didFindContent(std::shared_ptr<pelm::Content> content) override {
        const auto name = content->textRecord ? content->textRecord->name : std::nullopt;
        std::printf("content  %s\n", name.value_or("(untitled)").c_str());
        ++contents;
    }
    void didReceiveLog(const std::string& text, bool critical) override {
        std::printf("status   %s%s\n", text.c_str(), critical ? " (critical)" : "");
        // As in minimal_host: the exit content may come back after the upload, so quit a moment later.
        if (text == "Session upload successful finished" || text == "Failed to upload session") {
            uploaded = text == "Session upload successful finished";
            g_timeout_add_seconds(2, quitLoop, loop_);
        }
    }
    void didDiscoverBeacons(const std::vector<pelm::DiscoveredBeacon>&) override {}
    void didChangeReachableStatus(pelm::ReachableStatus status) override {
        std::printf("server   %s\n", std::string(pelm::to_string(status)).c_str());
    }
    void didChangeLocationStatus(pelm::LocationStatus) override {}
    void didChangeBluetoothStatus(pelm::BluetoothStatus status) override {
        std::printf("bluetooth %s\n", std::string(pelm::to_string(status)).c_str());
    }

    int contents = 0;
    bool uploaded = false;

  private:
    GMainLoop* loop_;
};

pelm::platform::BeaconSource beaconSource(const std::string& file) {
    if (file.empty()) return pelm::platform::BeaconSource::bluetoothAdapter();
    if (file.ends_with(".json")) return pelm::platform::BeaconSource::scenario(file);
    return pelm::platform::BeaconSource::recording(file);
}

gboolean quitOnSignal(gpointer loop) {
    std::fprintf(stderr, "glib_host: interrupted\n");
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4 || argc > 5) {
        std::fprintf(stderr, "usage: glib_host HOST TOKEN CA_FILE [SCENARIO.json | RECORDING]\n");
        return 2;
    }
    const std::string host = argv[1], token = argv[2];
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each line shows as it comes, even through a pipe

    // The app's own loop, on the default context; the library's queue joins it.
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, quitOnSignal, loop);
    g_unix_signal_add(SIGTERM, quitOnSignal, loop);

    pelm::platform::LinuxPlatformOptions options;
    options.appName = "glib-host";
    options.mainQueue = std::make_shared<GLibMainQueue>(g_main_context_default());
    options.extraCABundle = argv[3];
    try {
        options.beaconSource = beaconSource(argc == 5 ? argv[4] : "");
        pelm::platform::install(pelm::platform::makeLinuxPlatform(options));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "glib_host: %s\n", error.what());
        return 1;
    }

    auto app = std::make_shared<Host>(loop);
    std::shared_ptr<pelm::PelmBeaconManager> beacons;
    std::shared_ptr<pelm::PelmDeviceStatusManager> status;
    // As in minimal_host: the beacon manager is made once the token is stored, never before.
    pelm::PelmSDK::setAppToken(token, host, [&](bool successful) {
        if (!successful) {
            std::fprintf(stderr, "glib_host: the app configuration could not be fetched from %s\n",
                         host.c_str());
            g_main_loop_quit(loop);
            return;
        }
        beacons = pelm::PelmBeaconManager::make();
        beacons->delegate = app;
        beacons->startMonitoring();
        status = pelm::PelmDeviceStatusManager::make();
        status->delegate = app;
        status->startReachabilityNotifier();
        status->startBluetoothNotifier();
    });

    g_main_loop_run(loop);
    std::printf("%d content%s, visit %s\n", app->contents, app->contents == 1 ? "" : "s",
                app->uploaded ? "uploaded" : "not uploaded");
    g_main_loop_unref(loop);
    return app->contents > 0 && app->uploaded ? 0 : 1;
}
