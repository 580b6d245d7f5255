#pragma once

namespace pelm::lab {

/// The demo store's layout and a shopper's walk through it (data/demo_scenario.json), for the simulator; its
/// beacons are those of the demo data the server is seeded with.
const char* demoScenarioText();

}  // namespace pelm::lab
