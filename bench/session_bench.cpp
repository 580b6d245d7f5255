// The session engine's hot paths with N beacons in range (no server: lookups and uploads are off):
//   build/bench/bench/pelm_bench --benchmark_filter='AddBeacon|EntryExit'
#include <benchmark/benchmark.h>

#include <pelm/session/pelm_session_manager.hpp>

#include "support/test_platform.hpp"

namespace {

using namespace pelm;

std::shared_ptr<Beacon> nthBeacon(long n) {
    return std::make_shared<Beacon>("F7826DA6-4FA2-4E98-8024-BC5B71E0893E", std::to_string(1 + n / 1000),
                                    std::to_string(n % 1000));
}

std::shared_ptr<PelmSessionManager> managerWith(long inRange) {
    auto manager = PelmSessionManager::make(nullptr);
    for (long i = 0; i < inRange; ++i) {
        manager->addBeacon(nthBeacon(i));
        manager->addEntryEvent(nthBeacon(i));  // every beacon in range also has an open log line
    }
    return manager;
}

// Ranging reports every beacon in range about once a second; all but new ones answer false.
void AddBeaconAlreadyInRange(benchmark::State& state) {
    testing::TestPlatform platform;
    const auto manager = managerWith(state.range(0));
    const auto last = nthBeacon(state.range(0) - 1);  // the worst case: found at the end of the list
    for (auto _ : state) benchmark::DoNotOptimize(manager->addBeacon(last));
}
BENCHMARK(AddBeaconAlreadyInRange)->Arg(10)->Arg(100)->Arg(1000);

// One more beacon entered and left while N others are open.
void EntryExitEvents(benchmark::State& state) {
    testing::TestPlatform platform;
    const auto manager = managerWith(state.range(0));
    const auto visitor = nthBeacon(state.range(0));
    for (auto _ : state) {
        manager->addEntryEvent(visitor);
        manager->addExitEvent(visitor);
    }
    state.SetItemsProcessed(state.iterations() * 2);
}
BENCHMARK(EntryExitEvents)->Arg(10)->Arg(100)->Arg(1000)->Iterations(200000);

}  // namespace
