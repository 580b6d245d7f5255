#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pelm_cli/arguments.hpp"

namespace pelm::server {

/// How the server program is started: as pelm-server itself, or as `pelm serve`, which differs only in its
/// name, its port and its data.
struct ServeStyle {
    /// The name messages start with: "pelm-server" or "pelm serve".
    std::string program = "pelm-server";
    /// The port when --port is not given; none: a free one.
    std::optional<int> port;
    /// Serve the demo data (app token demo-token) when --seed is not given.
    bool demoData = false;
};

/// The options the server program takes, for its usage text and for `pelm serve --help`.
const std::vector<cli::Option>& serverOptions();

/// The server program: `words` are the positional words after the program (or command) name, "sessions" or
/// none. Serves until SIGINT or SIGTERM; returns the exit code (0, 1 for a failure, 2 for a usage mistake).
int serverMain(const cli::Arguments& args, const std::vector<std::string>& words, const ServeStyle& style);

}  // namespace pelm::server
