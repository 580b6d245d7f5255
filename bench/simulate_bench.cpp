// Advertisements per second through parser, region engine, beacon manager and session manager with 100
// beacons at 10 Hz (no server: the session manager has no client), and the demo visit in virtual time:
//   build/bench/bench/pelm_bench --benchmark_filter='Advertisements|DemoVisit'
#include <benchmark/benchmark.h>

#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/sim/simulated_store.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include "pelm_server/demo_seed.hpp"
#include "simulation.hpp"
#include "support/test_platform.hpp"

namespace {

using namespace pelm;
using namespace std::chrono_literals;

platform::Scenario denseStore() {
    JSON beacons = JSON::array();
    for (int i = 0; i < 100; ++i) {
        beacons.push_back(
            {{"major", 1}, {"minor", i + 1}, {"x", (i % 10) * 3}, {"y", (i / 10) * 3}, {"interval_ms", 100}});
    }
    return platform::Scenario::fromJSON(JSON{
        {"uuid", "F7826DA6-4FA2-4E98-8024-BC5B71E0893E"},
        {"beacons", beacons},
        {"path", {{"speed", 0.5}, {"points", JSON::array({{{"x", 0}, {"y", 0}}, {{"x", 27}, {"y", 27}}})}}},
        {"radio", {{"threshold_dbm", -120}}}});
}

void AdvertisementsThroughTheStack(benchmark::State& state) {
    testing::TestPlatform platform;
    SettingsManager::sharedInstance()->setKontaktIoAPIKey("key");
    SettingsManager::sharedInstance()->setDefaultBeaconUUID("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
    auto engine = std::make_shared<platform::RegionEngine>(platform.loop);
    platform.services->beaconVendor = engine;
    const auto manager = PelmBeaconManager::make();
    manager->startMonitoring();
    platform::SimulatedStore store(denseStore(), 1);
    std::chrono::milliseconds t{0};
    for (auto _ : state) {
        t += 100ms;  // one step: every beacon advertises once
        store.advertiseUntil(t, *engine);
        platform.loop->advance(100ms);
    }
    state.counters["advertisements/s"] =
        benchmark::Counter(static_cast<double>(engine->beaconAdvertisements()), benchmark::Counter::kIsRate);
}
BENCHMARK(AdvertisementsThroughTheStack)->Unit(benchmark::kMicrosecond);

void DemoVisit(benchmark::State& state) {
    cli::SimulationOptions options;
    options.scenario = platform::Scenario::fromJSON(*parseJSONText(server::demoScenarioText()));
    double simulatedSeconds = 0;
    for (auto _ : state) {
        const auto result = cli::runSimulation(options);
        if (!result.configured) state.SkipWithError("the embedded server did not answer");
        simulatedSeconds += static_cast<double>(result.simulated.count()) / 1000.0;
    }
    state.counters["virtual s per wall s"] =
        benchmark::Counter(simulatedSeconds, benchmark::Counter::kIsRate);
}
BENCHMARK(DemoVisit)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
