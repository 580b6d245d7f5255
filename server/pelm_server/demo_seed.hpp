#pragma once

namespace pelm::server {

/// The demo store's apps and contents (data/demo_seed.json): token "demo-token", store 1.
const char* demoSeedText();

}  // namespace pelm::server
