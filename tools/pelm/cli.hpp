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

namespace pelm::cli {

/// A command line split into positional words and --options (with or without a value).
class Arguments {
  public:
    /// `flags` are options that take no value.
    Arguments(int argc, char** argv, std::vector<std::string> flags);

    const std::vector<std::string>& positional() const { return positional_; }
    std::optional<std::string> option(const std::string& name) const;
    bool flag(const std::string& name) const { return options_.count(name) != 0; }
    /// Set when the line could not be read (an option without its value).
    const std::optional<std::string>& error() const { return error_; }
    /// Options given that are not in `known`.
    std::vector<std::string> unknown(const std::vector<std::string>& known) const;

  private:
    std::vector<std::string> positional_;
    std::map<std::string, std::string> options_;
    std::optional<std::string> error_;
};

/// `pelm status`: the server is not reachable, or no host is known (0 reachable, 1 failure, 2 usage).
inline constexpr int kExitUnreachable = 3;

/// The Linux platform for --app, --config-dir and --ca, installed, with its run loop.
std::shared_ptr<platform::Platform> installPlatform(const Arguments& args);
/// Runs the installed platform's loop until `done()` holds; false after `timeout`.
bool runUntil(const std::function<bool()>& done,
              std::chrono::milliseconds timeout = std::chrono::seconds(60));

/// Prints the four stored settings; the app token masked unless `showToken`.
void printSettings(const SettingsManager& settings, bool showToken);

int settingsCommand(const Arguments& args);
int setupCommand(const Arguments& args);
int callCommand(const Arguments& args);
int serveCommand(const Arguments& args);
int statusCommand(const Arguments& args);
int simulateCommand(const Arguments& args);
int replayCommand(const Arguments& args);
int recordCommand(const Arguments& args);

}  // namespace pelm::cli
