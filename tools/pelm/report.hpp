#pragma once

#include <string>

#include "simulation.hpp"

namespace pelm::cli {

/// A self-contained HTML page: an SVG timeline with one row per beacon (when the radio heard it, sub-region
/// entries and exits) and a row of content handed over, followed by the timeline as a table.
std::string htmlReport(const platform::Scenario& scenario, const SimulationResult& result);

}  // namespace pelm::cli
