#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pelm/platform/platform.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include "pelm_cli/arguments.hpp"

namespace pelm::lab {}

namespace pelm::cli {

// The tool speaks the lab's vocabulary: its runs, events, timeline and report.
using namespace pelm::lab;

/// What a command returns for words it cannot take: the tool prints the command's usage and exits 2.
inline constexpr int kShowUsage = -1;

/// `pelm status`: the server is not reachable, or no host is known (0 reachable, 1 failure, 2 usage).
inline constexpr int kExitUnreachable = 3;

/// The Linux platform for --app, --config-dir and --ca, installed, with its run loop.
std::shared_ptr<platform::Platform> installPlatform(const Arguments& args);
/// The CA file `pelm setup --ca` remembered for the app, which later commands trust without --ca.
std::optional<std::string> rememberedCA(const Arguments& args);
/// Remembers `ca` (made absolute) for the app; why not, when it cannot be read.
std::optional<std::string> rememberCA(const Arguments& args, const std::string& ca);
/// "the server refused the app token (HTTP 401)" once any reply through installPlatform's transport was a
/// 401 or 403.
std::optional<std::string> tokenRefusal();
/// The settings keys whose last write through installPlatform's store did not stick (the store logged why).
std::vector<std::string> unstoredSettings();
/// The keys written without a complaint of the store's that could not be read back (reading failed).
std::vector<std::string> unconfirmedSettings();
/// Runs the installed platform's loop until `done()` holds; false after `timeout`.
bool runUntil(const std::function<bool()>& done,
              std::chrono::milliseconds timeout = std::chrono::seconds(60));

/// --host given as a URL or otherwise not a host: the one line to print ("--host X: why; give the host
/// alone ..."), which the command ends with exit 2.
std::optional<std::string> hostArgumentProblem(const Arguments& args);

/// Prints the four stored settings, the app token masked unless --show-token, and the CA the tool remembers.
void printSettings(const SettingsManager& settings, const Arguments& args);

int settingsCommand(const Arguments& args);
int setupCommand(const Arguments& args);
int callCommand(const Arguments& args);
int serveCommand(const Arguments& args);
int statusCommand(const Arguments& args);
int simulateCommand(const Arguments& args);
int replayCommand(const Arguments& args);
int recordCommand(const Arguments& args);

}  // namespace pelm::cli
