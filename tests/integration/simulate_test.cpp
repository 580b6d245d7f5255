// The demo store end to end: the embedded server, the simulated walk, the real library in between.
#include <gmock/gmock.h>

#include <pelm/model/json_text.hpp>

#include "pelm_lab/demo_scenario.hpp"
#include "pelm_lab/simulation.hpp"

namespace pelm::lab {
namespace {

using ::testing::ElementsAre;

SimulationOptions demo(std::uint64_t seed) {
    SimulationOptions options;
    options.scenario = platform::Scenario::fromJSON(*parseJSONText(lab::demoScenarioText()));
    options.seed = seed;
    return options;
}

std::vector<std::string> contents(const SimulationResult& result) {
    std::vector<std::string> names;
    for (const auto& event : result.timeline) {
        if (event.as<events::ContentHandedOn>()) names.push_back(event.text);
    }
    return names;
}

TEST(Simulate, TheDemoVisitHandsOverEntryAndExitContentHoldsBackRepeatsAndIsStored) {
    const auto result = runSimulation(demo(1));
    ASSERT_TRUE(result.configured) << result.failure;
    // The survey comes when the shopper has left the till for the exit.
    EXPECT_THAT(contents(result),
                ElementsAre("Willkommen [entry] from 1/1", "Feinkost-Tipp [entry] from 1/9",
                            "K\xC3\xA4sewoche [entry] from 1/11", "Getr\xC3\xA4nke-Aktion [entry] from 1/20",
                            "Wie war Ihr Einkauf? [exit] from 1/3"));
    // Back at the drinks shelf within its 15-minute cool-down: held back.
    const auto hot =
        std::count_if(result.timeline.begin(), result.timeline.end(),
                      [](const TimelineEvent& e) { return e.text.rfind("Beacon is hot until: ", 0) == 0; });
    EXPECT_EQ(hot, 1);
    for (const auto& event : result.timeline) {
        EXPECT_NE(event.kind, TimelineEvent::Kind::Log) << event.text;  // the library logged no fault
    }
    ASSERT_EQ(result.storedVisits.size(), 1u);
    const auto& visit = result.storedVisits[0];
    EXPECT_EQ(visit["app_token"], "demo-token");
    std::vector<std::string> minors;
    for (const auto& line : visit["session_logs"]) minors.push_back(line["minor"].get<std::string>());
    EXPECT_THAT(minors, ElementsAre("20", "3", "1"));
    EXPECT_EQ(visit["beacon"]["minor"], "20");
    EXPECT_EQ(visit["session"]["start_time"], visit["session_logs"][0]["entrance_time"]);
}

TEST(Simulate, TheSameSeedGivesTheSameTimeline) {
    const auto first = runSimulation(demo(7));
    const auto second = runSimulation(demo(7));
    ASSERT_EQ(first.timeline.size(), second.timeline.size());
    for (std::size_t i = 0; i < first.timeline.size(); ++i) {
        EXPECT_EQ(first.timeline[i].at, second.timeline[i].at);
        EXPECT_EQ(first.timeline[i].text, second.timeline[i].text);
    }
    EXPECT_EQ(first.advertisements, second.advertisements);
}

}  // namespace
}  // namespace pelm::lab
