#include <unistd.h>

#include <cstdio>
#include <iostream>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/linux/bounded_file.hpp>

#include "cli.hpp"
#include "pelm_cli/stop_signals.hpp"
#include "pelm_cli/text_numbers.hpp"
#include "pelm_lab/demo_scenario.hpp"
#include "pelm_lab/simulation.hpp"
#include "pelm_lab/timeline_output.hpp"
#include "run_output.hpp"

namespace pelm::cli {
namespace {

std::optional<JSON> readScenario(const std::vector<std::string>& words, std::string& error) {
    if (words.size() < 2) return parseJSONText(lab::demoScenarioText());
    auto read = platform::readJSONFile(words[1]);
    error = std::move(read.error);
    return std::move(read.json);
}

}  // namespace

int simulateCommand(const Arguments& args) {
    if (args.positional().size() > 2) {
        std::fprintf(stderr, "pelm simulate: takes one scenario, not %zu (%s, %s, ...)\n",
                     args.positional().size() - 1, args.positional()[1].c_str(),
                     args.positional()[2].c_str());
        return 2;
    }
    if (const auto problem = hostArgumentProblem(args)) {
        std::fprintf(stderr, "pelm simulate: %s\n", problem->c_str());
        return 2;
    }
    auto& stop = StopSignals::watch();  // before the embedded server's threads start
    std::string error;
    const auto json = readScenario(args.positional(), error);
    if (!json) {
        std::fprintf(stderr, "pelm simulate: %s\n", error.c_str());
        return 1;
    }
    SimulationOptions options;
    const auto seed = wholeNumber(args.option("seed").value_or("1"), 0, 1LL << 53);
    const auto speed = decimalNumber(args.option("speed").value_or("0"));
    // Unset (0) runs as fast as it can; a speed given must be a real one.
    if (!seed) {
        std::fprintf(stderr, "pelm simulate: --seed takes a whole number from 0 to 2^53\n");
        return 2;
    }
    if (!speed || *speed < 0 || (args.option("speed") && *speed <= 0)) {
        std::fprintf(stderr, "pelm simulate: --speed takes a number above 0\n");
        return 2;
    }
    options.seed = static_cast<std::uint64_t>(*seed);
    options.speed = *speed;
    try {
        options.scenario = platform::Scenario::fromJSON(*json);
    } catch (const platform::ScenarioError& e) {
        std::fprintf(stderr, "pelm simulate: bad scenario: %s\n", e.what());
        return 1;
    }
    options.host = args.option("host");
    options.token = args.option("token");
    options.caFile = args.option("ca");
    if (options.host.has_value() != options.token.has_value()) {
        std::fprintf(stderr, "pelm simulate: --host and --token go together\n");
        return 2;
    }

    RunOutput output("simulate");
    const auto inputs = args.positional().size() >= 2 ? std::vector<std::string>{args.positional()[1]}
                                                      : std::vector<std::string>{};
    if (const auto failure = output.open(args, inputs)) return *failure;
    options.stopRequested = [&stop] { return stop.requested(); };
    options.keepTimeline = false;  // the report is drawn up as the events come
    std::printf(
        "Simulating \"%s\": %zu beacons, a walk of %s, seed %llu, %s\n", options.scenario.name.c_str(),
        options.scenario.beacons.size(), clockText(options.scenario.duration()).c_str(),
        static_cast<unsigned long long>(options.seed),
        options.host ? ("server https://" + *options.host).c_str() : "embedded pelm-server with demo data");
    std::printf("What the host app sees:\n");
    std::fflush(stdout);
    // The "... 01:10 of 04:00" line rewrites itself, which only a terminal shows well; a pipe gets events
    // only.
    const bool realTime = options.speed > 0 && ::isatty(STDOUT_FILENO) == 1;
    const auto result = runSimulation(
        options,
        [&](const TimelineEvent& event) {
            if (realTime) std::printf("\r%*s\r", 60, "");
            output.show(event);
        },
        [&](std::chrono::milliseconds at, std::chrono::milliseconds end) {
            if (!realTime) return;
            std::printf("\r  ... %s of %s", clockText(at).c_str(), clockText(end).c_str());
            std::fflush(stdout);
        });
    if (realTime) std::printf("\n");
    if (result.interrupted) return output.interrupted(stop.exitCode());
    if (!result.failure.empty()) {
        std::fprintf(stderr, "pelm simulate: %s\n", result.failure.c_str());
        return 1;
    }
    std::printf("\n%llu advertisements over %s of store time.\n",
                static_cast<unsigned long long>(result.advertisements), clockText(result.simulated).c_str());
    if (!options.host) {
        std::printf("The visit as the server stored it:\n");
        printStoredVisits(result.storedVisits, args.flag("json"));
    }
    if (const auto failure =
            output.finish(reportHeader(options, result), result.simulated, result.storedVisits))
        return *failure;
    return 0;
}

}  // namespace pelm::cli
