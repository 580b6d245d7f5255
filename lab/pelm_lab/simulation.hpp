#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <pelm/model/json_binding.hpp>
#include <pelm/platform/sim/simulated_store.hpp>

#include "pelm_lab/report.hpp"
#include "pelm_lab/visit_harness.hpp"

namespace pelm::lab {

struct SimulationOptions {
    platform::Scenario scenario;
    std::uint64_t seed = 1;
    /// 0: virtual time, as fast as it goes; otherwise virtual seconds per wall second.
    double speed = 0;
    /// A server of one's own; the embedded pelm-server with demo data when not given.
    std::optional<std::string> host, token, caFile;
    /// Asked between steps; true ends the walk where it is (Ctrl-C).
    std::function<bool()> stopRequested;
    /// Keep every event for SimulationResult::timeline; a caller that takes them as they come need not.
    bool keepTimeline = true;
};

struct SimulationResult {
    bool configured = false;  // the app configuration was fetched
    /// The virtual instant the run started at; event times count from it.
    Date start{};
    /// Every event, when SimulationOptions::keepTimeline.
    std::vector<TimelineEvent> timeline;
    /// The visits the server stored during the run (embedded server only).
    JSON storedVisits = JSON::array();
    std::chrono::milliseconds simulated{0};
    std::uint64_t advertisements = 0;
    std::string failure;
    /// The walk was ended early by stopRequested.
    bool interrupted = false;
};

/// Walks the scenario's shopper through the store against a real server: the region engine hears the
/// simulated advertisements in virtual time and drives the real beacon manager and session engine.
SimulationResult runSimulation(
    const SimulationOptions& options, const std::function<void(const TimelineEvent&)>& onEvent = {},
    const std::function<void(std::chrono::milliseconds, std::chrono::milliseconds)>& onProgress = {});

/// What the report of a walk says before its events: the scenario's name, the walk's length and seed.
ReportHeader reportHeader(const SimulationOptions& options, const SimulationResult& result);

}  // namespace pelm::lab
