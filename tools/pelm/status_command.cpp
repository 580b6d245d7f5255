#include <atomic>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <thread>

#include <pelm/platform/run_loop.hpp>
#include <pelm/sdk/pelm_constants.hpp>
#include <pelm/status/pelm_device_status_manager.hpp>
#include <pelm/testing/memory_key_value_store.hpp>

#include "cli.hpp"
#include "pelm_cli/stop_signals.hpp"

namespace pelm::cli {
namespace {

// The library's own names; the one that needs a word for a person gets it.
std::string text(ReachableStatus status) {
    return std::string(to_string(status));
}
std::string text(LocationStatus status) {
    return std::string(to_string(status));
}
std::string text(BluetoothStatus status) {
    const std::string name(to_string(status));
    return status == BluetoothStatus::Error ? name + " (no controller, or not usable)" : name;
}

// Prints each status as it arrives, with the time when watching.
class Printer : public PelmDeviceStatusManagerDelegate {
  public:
    Printer(std::string host, bool stamped) : host_(std::move(host)), stamped_(stamped) {}
    // The library's reachability is the platform's: whether the network has a route to the host, not
    // whether a server answers there. The line says which.
    void didChangeReachableStatus(ReachableStatus status) override {
        print("route to " + host_, text(status));
        reachability = status;
    }
    void didChangeLocationStatus(LocationStatus status) override { print("location", text(status)); }
    void didChangeBluetoothStatus(BluetoothStatus status) override {
        bluetoothKnown = status != BluetoothStatus::Unknown;
        // Unknown is what the adapter is while its state is still asked for: one answer a line, so a single
        // look shows it only when no other came.
        if (bluetoothKnown || stamped_) print("bluetooth", text(status));
    }
    /// The end of a single look: an adapter that never told its state is shown as it stands.
    void finish() const {
        if (!bluetoothKnown) print("bluetooth", text(BluetoothStatus::Unknown));
    }
    std::optional<ReachableStatus> reachability;
    bool bluetoothKnown = false;

  private:
    void print(const std::string& what, const std::string& value) const {
        if (stamped_) {
            const auto now = std::time(nullptr);
            char stamp[16];
            std::strftime(stamp, sizeof stamp, "%H:%M:%S", std::localtime(&now));
            std::printf("%s  ", stamp);
        }
        std::printf("%-28s %s\n", what.c_str(), value.c_str());
        std::fflush(stdout);
    }
    std::string host_;
    bool stamped_;
};

// Until SIGINT or SIGTERM, printing each change. The signals are taken by a thread of their own, which wakes
// the loop at once; they were blocked before the platform's threads started, so none of those takes them.
void watchUntilStopped() {
    std::atomic<bool> stopped{false};
    auto queue = platform::current()->mainQueue;
    std::thread waiter([&] {
        StopSignals::watch().wait();
        stopped = true;
        queue->post([] {});
    });
    runUntil([&] { return stopped.load(); }, std::chrono::hours(24 * 365));
    waiter.join();
}

}  // namespace

int statusCommand(const Arguments& args) {
    if (const auto problem = hostArgumentProblem(args)) {
        std::fprintf(stderr, "pelm status: %s\n", problem->c_str());
        return 2;
    }
    const bool watch = args.flag("watch");
    if (watch) StopSignals::watch();
    auto services = installPlatform(args);
    if (const auto host = args.option("host")) {
        // Ask about this host without touching the app's stored settings.
        auto store = std::make_shared<testing::MemoryKeyValueStore>();
        store->set("pelm.apihost", *host);
        auto adjusted = std::make_shared<platform::Platform>(*services);
        adjusted->store = store;
        platform::install(adjusted);
    }
    const auto host = PelmConstants::apiHost();
    auto printer = std::make_shared<Printer>(host.value_or("(no host stored)"), watch);
    auto manager = PelmDeviceStatusManager::make();
    manager->delegate = printer;
    manager->startLocationNotifier();
    manager->startBluetoothNotifier();
    manager->startReachabilityNotifier();
    if (watch) {
        watchUntilStopped();
        return 0;
    }
    // The answers come within milliseconds on an idle machine; a loaded one (a build beside it) may take
    // seconds to schedule the watchers' threads, and a missing answer would read as "no route".
    runUntil([&] { return (printer->reachability || !host) && printer->bluetoothKnown; },
             std::chrono::seconds(10));
    printer->finish();
    return printer->reachability == ReachableStatus::Reachable ? 0 : kExitUnreachable;
}

}  // namespace pelm::cli
