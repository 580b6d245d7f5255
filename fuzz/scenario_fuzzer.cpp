// Any text as a scenario: it is read or refused with a ScenarioError, and a scenario that is read can be
// walked for a while without undefined behaviour.
#include <pelm/model/json_text.hpp>
#include <pelm/platform/sim/simulated_store.hpp>

#include <cstdint>
#include <string_view>

#include "fuzz_platform.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    pelm::fuzzing::installPlatform();
    const auto json = pelm::parseJSONText(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!json) return 0;
    try {
        const auto scenario = pelm::platform::Scenario::fromJSON(*json);
        pelm::platform::SimulatedStore store(scenario, size);
        auto loop = std::make_shared<pelm::testing::VirtualLoop>();
        auto engine = std::make_shared<pelm::platform::RegionEngine>(loop);
        store.advertiseUntil(std::min(scenario.duration(), std::chrono::milliseconds(2000)), *engine);
        (void)scenario.positionAt(scenario.duration() / 2);
    } catch (const pelm::platform::ScenarioError&) {
    }
    return 0;
}
