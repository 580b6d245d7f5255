#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

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

int settingsCommand(const Arguments& args);

}  // namespace pelm::cli
