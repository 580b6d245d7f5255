#include <algorithm>

#include "cli.hpp"

namespace pelm::cli {

Arguments::Arguments(int argc, char** argv, std::vector<std::string> flags) {
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word.rfind("--", 0) != 0 || word == "--") {
            positional_.push_back(word);
            continue;
        }
        auto name = word.substr(2);
        if (const auto eq = name.find('='); eq != std::string::npos) {
            options_[name.substr(0, eq)] = name.substr(eq + 1);
        } else if (std::find(flags.begin(), flags.end(), name) != flags.end()) {
            options_[name] = "";
        } else if (i + 1 < argc) {
            options_[name] = argv[++i];
        } else {
            // Kept, so that an unknown option at the end reads as unknown rather than as lacking a value.
            options_[name] = "";
            error_ = "option --" + name + " needs a value";
        }
    }
}

std::optional<std::string> Arguments::option(const std::string& name) const {
    const auto found = options_.find(name);
    if (found == options_.end()) return std::nullopt;
    return found->second;
}

std::vector<std::string> Arguments::unknown(const std::vector<std::string>& known) const {
    std::vector<std::string> result;
    for (const auto& [name, value] : options_) {
        if (std::find(known.begin(), known.end(), name) == known.end()) result.push_back("--" + name);
    }
    return result;
}

}  // namespace pelm::cli
