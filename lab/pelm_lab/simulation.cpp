#include "pelm_lab/simulation.hpp"

#include <thread>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/ble/ibeacon_advertisement.hpp>

#include "pelm_lab/timeline_output.hpp"
#include "pelm_server/demo_seed.hpp"

namespace pelm::lab {

using namespace std::chrono_literals;

SimulationResult runSimulation(
    const SimulationOptions& options, const std::function<void(const TimelineEvent&)>& onEvent,
    const std::function<void(std::chrono::milliseconds, std::chrono::milliseconds)>& onProgress) {
    SimulationResult result;
    result.start = Date{std::chrono::sys_days{std::chrono::year{2026} / 11 / 22}} + 9h;
    ServerChoice server{options.host, options.token, options.caFile, *parseJSONText(server::demoSeedText())};
    VisitHarness harness(server, result.start, onEvent, options.keepTimeline);
    result.failure = harness.failure();
    result.configured = result.failure.empty();
    if (result.configured) {
        platform::SimulatedStore store(options.scenario, options.seed);
        const auto hear = [&harness](const platform::HeardAdvertisement& heard) {
            harness.hear(heard, platform::parseIBeacon(heard.data));
        };
        // Walk, then wait long enough for the store's region to be left and the visit uploaded.
        const auto end = options.scenario.duration() + 40s;
        constexpr auto step = 100ms;
        for (std::chrono::milliseconds t{0}; t <= end; t += step) {
            if (options.stopRequested && options.stopRequested()) {
                result.interrupted = true;
                break;
            }
            store.advertiseUntil(t, hear);
            harness.loop().advance(step);
            if (options.speed > 0) {
                std::this_thread::sleep_for(
                    std::chrono::duration<double, std::milli>(step.count() / options.speed));
            }
            if (onProgress && t.count() % 1000 == 0) onProgress(t, end);
        }
        result.simulated = end;
        result.advertisements = store.advertisementsSent();
    }
    harness.finish();
    result.timeline = harness.takeEvents();
    result.storedVisits = harness.storedVisits();
    return result;
}

ReportHeader reportHeader(const SimulationOptions& options, const SimulationResult& result) {
    return {options.scenario.name,
            "A simulated walk of " + clockText(options.scenario.duration()) + ", seed " +
                std::to_string(options.seed),
            result.start};
}

}  // namespace pelm::lab
