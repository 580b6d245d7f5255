#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace pelm::cli {

/// One option as the usage text shows it.
struct Option {
    const char* name;
    /// What follows the option, or "" for a flag.
    const char* value;
    const char* help;
};

/// A command line split into positional words and --options. An option's value follows it as the next word
/// or after "=" (`--port 8443`, `--port=8443`); a flag takes none.
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
    /// The first option given that is not among `known`, as "--name"; none when all are.
    std::optional<std::string> firstUnknown(const std::vector<Option>& known) const;

  private:
    std::vector<std::string> positional_;
    std::map<std::string, std::string> options_;
    std::optional<std::string> error_;
};

/// "  --port N           the port ..." for each option, as a usage text lists them.
std::string optionLines(const std::vector<Option>& options);

}  // namespace pelm::cli
