#pragma once

namespace pelm::server {

/// The demo store's apps and contents (data/demo_seed.json): token "demo-token", store 1.
const char* demoSeedText();
/// The demo store's layout and a shopper's walk through it (data/demo_scenario.json), for the simulator.
const char* demoScenarioText();

}  // namespace pelm::server
