#include "simulation.hpp"

#include <unistd.h>
#include <filesystem>
#include <thread>

#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/linux/curl_transport.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/platform/sim/fixed_identity.hpp>
#include <pelm/platform/sim/memory_key_value_store.hpp>
#include <pelm/platform/sim/virtual_loop.hpp>
#include <pelm/sdk/pelm_sdk.hpp>

#include "pelm_server/demo_seed.hpp"
#include "pelm_server/pelm_server.hpp"

namespace pelm::cli {
namespace {

using namespace std::chrono_literals;

/// Collects what the host app hears, stamped with the virtual time since the start.
class Recorder : public PelmBeaconManagerDelegate, public platform::LogSink {
  public:
    Recorder(std::shared_ptr<platform::VirtualLoop> loop,
             const std::function<void(const TimelineEvent&)>& onEvent)
        : loop_(std::move(loop)), start_(loop_->now()), onEvent_(onEvent) {}

    void didFindContent(std::shared_ptr<Content> content) override {
        std::string text =
            content->textRecord && content->textRecord->name ? *content->textRecord->name : "(untitled)";
        if (content->displayType)
            text += std::string(" [") + std::string(rawValue(*content->displayType)) + "]";
        add(TimelineEvent::Kind::Content, text, false, content->id);
    }
    void didReceiveLog(const std::string& text, bool critical) override {
        add(TimelineEvent::Kind::Status, text, critical, std::nullopt);
    }
    void didDiscoverBeacons(const std::vector<DiscoveredBeacon>& beacons) override {
        std::string ids;
        for (const auto& beacon : beacons) ids += (ids.empty() ? "" : ", ") + beacon.identifier;
        if (ids == lastDevices_) return;  // say it when the neighbourhood changes
        lastDevices_ = ids;
        std::string text = std::to_string(beacons.size()) + " nearby:";
        for (const auto& b : beacons) {
            text += " " + b.identifier + " (" + std::to_string(b.rssi) + " dBm, battery " +
                    std::to_string(b.batteryLevel) + "%" +
                    (b.firmwareVersion.empty() ? "" : ", fw " + b.firmwareVersion) + ")";
        }
        add(TimelineEvent::Kind::Devices, text, false, std::nullopt);
    }
    void write(std::string_view line) override {
        add(TimelineEvent::Kind::Log, std::string(line), true, std::nullopt);
    }

    std::vector<TimelineEvent> events;

  private:
    void add(TimelineEvent::Kind kind, std::string text, bool critical, std::optional<std::int64_t> id) {
        events.push_back({std::chrono::duration_cast<std::chrono::milliseconds>(loop_->now() - start_), kind,
                          std::move(text), critical, id});
        if (onEvent_) onEvent_(events.back());
    }
    std::shared_ptr<platform::VirtualLoop> loop_;
    Date start_;
    const std::function<void(const TimelineEvent&)>& onEvent_;
    std::string lastDevices_;
};

}  // namespace

SimulationResult runSimulation(
    const SimulationOptions& options, const std::function<void(const TimelineEvent&)>& onEvent,
    const std::function<void(std::chrono::milliseconds, std::chrono::milliseconds)>& onProgress) {
    SimulationResult result;
    std::unique_ptr<server::PelmServer> embedded;
    const auto folder =
        std::filesystem::temp_directory_path() / ("pelm-simulate-" + std::to_string(::getpid()));
    auto host = options.host;
    auto token = options.token;
    auto ca = options.caFile;
    if (!host) {
        server::PelmServer::Options serverOptions;
        serverOptions.certificateFolder = folder;
        embedded = std::make_unique<server::PelmServer>(serverOptions);
        embedded->store().seed(*parseJSONText(server::demoSeedText()));
        embedded->start();
        host = embedded->host();
        token = "demo-token";
        ca = embedded->caFile()->string();
    }

    auto loop = std::make_shared<platform::VirtualLoop>(
        Date{std::chrono::sys_days{std::chrono::year{2026} / 11 / 22}} + 9h);
    auto recorder = std::make_shared<Recorder>(loop, onEvent);
    platform::CurlTransportOptions http;
    if (ca) http.extraCABundle = *ca;
    auto engine = std::make_shared<platform::RegionEngine>(loop);
    auto services = std::make_shared<platform::Platform>();
    services->mainQueue = loop;
    services->store = std::make_shared<platform::MemoryKeyValueStore>();
    services->identity =
        std::make_shared<platform::FixedIdentity>("5E1F0000-0000-4000-8000-00000000C0DE", "sim", "1");
    services->log = recorder;  // library faults join the timeline
    services->http = std::make_shared<platform::CurlTransport>(loop, http);
    services->beaconVendor = engine;
    platform::install(services);

    PelmSDK::setAppToken(token.value_or(""), *host, [&](bool ok) { result.configured = ok; });
    loop->runUntilIdle();
    if (!result.configured) {
        result.failure = "could not fetch the app configuration from https://" + *host;
    } else {
        auto manager = PelmBeaconManager::make();
        manager->delegate = recorder;
        manager->startMonitoring();
        platform::SimulatedStore store(options.scenario, options.seed);
        result.heardSeconds.resize(options.scenario.beacons.size());
        store.onHeard = [&](std::size_t index, std::chrono::milliseconds at, int) {
            auto& seconds = result.heardSeconds[index];
            const auto second = at.count() / 1000;
            if (seconds.empty() || seconds.back() != second) seconds.push_back(second);
        };
        // Walk, then wait long enough for the store's region to be left and the visit uploaded.
        const auto end = options.scenario.duration() + 40s;
        constexpr auto step = 100ms;
        for (std::chrono::milliseconds t{0}; t <= end; t += step) {
            store.advertiseUntil(t, *engine);
            loop->advance(step);
            if (options.speed > 0) {
                std::this_thread::sleep_for(
                    std::chrono::duration<double, std::milli>(step.count() / options.speed));
            }
            if (onProgress && t.count() % 1000 == 0) onProgress(t, end);
        }
        loop->runUntilIdle();
        result.simulated = end;
        result.advertisements = store.advertisementsSent();
        manager.reset();
    }
    platform::install(nullptr);
    services.reset();
    loop->runUntilIdle();
    result.timeline = recorder->events;
    if (embedded) {
        result.storedVisits = embedded->store().sessions();
        embedded->stop();
        std::filesystem::remove_all(folder);
    }
    return result;
}

}  // namespace pelm::cli
