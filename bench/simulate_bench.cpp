// Advertisements per second through parser, region engine, beacon manager and session manager with 100
// beacons at 10 Hz (no server: the session manager has no client), the same read from recordings first,
// and the demo visit in virtual time:
//   build/bench/bench/pelm_bench --benchmark_filter='Advertisements|Recording|DemoVisit'
#include <benchmark/benchmark.h>

#include <sstream>

#include <pelm/beacons/pelm_beacon_manager.hpp>
#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/recording_reader.hpp>
#include <pelm/platform/ble/region_engine.hpp>
#include <pelm/platform/sim/simulated_store.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include "pelm_lab/demo_scenario.hpp"
#include "pelm_lab/simulation.hpp"
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

// The same store's advertisements, recorded for a minute as a JSON trace and as a btsnoop log (H4 LE
// advertising reports), to be read back by the recording readers.
struct Recorded {
    std::string trace, snoop;
};

void putBigEndian(std::string& out, std::uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out += static_cast<char>(value >> (8 * i));
}

const Recorded& recordedDenseStore() {
    static const Recorded recorded = [] {
        Recorded r;
        r.snoop = std::string("btsnoop\0", 8);
        putBigEndian(r.snoop, 1, 4);
        putBigEndian(r.snoop, 1002, 4);
        const auto scenario = denseStore();
        platform::SimulatedStore store(scenario, 1);
        store.onHeard = [&](std::size_t index, std::chrono::milliseconds at, int rssi) {
            platform::HeardAdvertisement heard;
            heard.at = Date{at};
            heard.address = "C0:00:00:00:00:" + std::to_string(10 + index % 90);
            heard.rssi = rssi;
            heard.data = platform::SimulatedStore::advertisingData(scenario.beacons[index]);
            r.trace += platform::traceLine(heard) + "\n";
            std::string event{'\x04', '\x3E', static_cast<char>(12 + heard.data.size()), '\x02', '\x01',
                              '\x03', '\x00'};
            for (int i = 0; i < 6; ++i) event += static_cast<char>(index + i);
            event += static_cast<char>(heard.data.size());
            event.append(heard.data.begin(), heard.data.end());
            event += static_cast<char>(rssi);
            putBigEndian(r.snoop, event.size(), 4);
            putBigEndian(r.snoop, event.size(), 4);
            putBigEndian(r.snoop, 1, 4);
            putBigEndian(r.snoop, 0, 4);
            putBigEndian(r.snoop, 0x00DCDDB30F2F8000ULL + static_cast<std::uint64_t>(at.count()) * 1000, 8);
            r.snoop += event;
        };
        auto loop = std::make_shared<testing::VirtualLoop>();
        auto engine = std::make_shared<platform::RegionEngine>(loop);
        store.advertiseUntil(60s, *engine);
        return r;
    }();
    return recorded;
}

// As AdvertisementsThroughTheStack, but every advertisement comes out of a recording reader first.
void RecordingThroughTheStack(benchmark::State& state, bool snoop) {
    testing::TestPlatform platform;
    SettingsManager::sharedInstance()->setKontaktIoAPIKey("key");
    SettingsManager::sharedInstance()->setDefaultBeaconUUID("F7826DA6-4FA2-4E98-8024-BC5B71E0893E");
    auto engine = std::make_shared<platform::RegionEngine>(platform.loop);
    platform.services->beaconVendor = engine;
    const auto manager = PelmBeaconManager::make();
    manager->startMonitoring();
    const auto& bytes = snoop ? recordedDenseStore().snoop : recordedDenseStore().trace;
    const auto open = [&] {
        return platform::RecordingReader::open(std::make_unique<std::istringstream>(bytes), "bench");
    };
    auto reader = open();
    std::optional<platform::HeardAdvertisement> pending;
    std::chrono::milliseconds t{0}, offset{0};
    for (auto _ : state) {
        t += 100ms;
        for (;;) {
            if (!pending && !(pending = reader->next())) {
                reader = open();  // round again, a minute later
                offset += 60s;
                continue;
            }
            if (std::chrono::duration_cast<std::chrono::milliseconds>(pending->at.time_since_epoch()) +
                    offset >
                t)
                break;
            engine->hear(*pending);
            pending.reset();
        }
        platform.loop->advance(100ms);
    }
    state.counters["advertisements/s"] =
        benchmark::Counter(static_cast<double>(engine->beaconAdvertisements()), benchmark::Counter::kIsRate);
}
BENCHMARK_CAPTURE(RecordingThroughTheStack, trace, false)->Unit(benchmark::kMicrosecond);

// The reader alone: 100 advertisements (one step's worth) read and dropped.
void RecordingReaderAlone(benchmark::State& state, bool snoop) {
    const auto& bytes = snoop ? recordedDenseStore().snoop : recordedDenseStore().trace;
    const auto open = [&] {
        return platform::RecordingReader::open(std::make_unique<std::istringstream>(bytes), "bench");
    };
    auto reader = open();
    std::uint64_t read = 0;
    for (auto _ : state) {
        for (int i = 0; i < 100; ++i) {
            auto heard = reader->next();
            if (!heard) reader = open();
            benchmark::DoNotOptimize(heard);
            ++read;
        }
    }
    state.counters["advertisements/s"] =
        benchmark::Counter(static_cast<double>(read), benchmark::Counter::kIsRate);
}
BENCHMARK_CAPTURE(RecordingReaderAlone, trace, false)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(RecordingReaderAlone, btsnoop, true)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(RecordingThroughTheStack, btsnoop, true)->Unit(benchmark::kMicrosecond);

void DemoVisit(benchmark::State& state) {
    lab::SimulationOptions options;
    options.scenario = platform::Scenario::fromJSON(*parseJSONText(lab::demoScenarioText()));
    double simulatedSeconds = 0;
    for (auto _ : state) {
        const auto result = lab::runSimulation(options);
        if (!result.configured) state.SkipWithError("the embedded server did not answer");
        simulatedSeconds += static_cast<double>(result.simulated.count()) / 1000.0;
    }
    state.counters["virtual s per wall s"] =
        benchmark::Counter(simulatedSeconds, benchmark::Counter::kIsRate);
}
BENCHMARK(DemoVisit)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
