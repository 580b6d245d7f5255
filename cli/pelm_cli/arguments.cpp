#include "pelm_cli/arguments.hpp"

#include <algorithm>
#include <string_view>

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

std::optional<std::string> Arguments::firstUnknown(const std::vector<Option>& known) const {
    std::vector<std::string> names;
    for (const auto& option : known) names.emplace_back(option.name);
    const auto unknownOnes = unknown(names);
    if (unknownOnes.empty()) return std::nullopt;
    return unknownOnes.front();
}

std::string optionLines(const std::vector<Option>& options) {
    constexpr std::size_t kHelpColumn = 21, kWidth = 100;
    std::string text;
    for (const auto& option : options) {
        std::string line =
            std::string("  --") + option.name + (*option.value != '\0' ? " " : "") + option.value;
        // The help starts in its column, on the next line when the option is too long for it, and wraps at
        // the width.
        line = line.size() + 1 > kHelpColumn ? line + "\n" + std::string(kHelpColumn, ' ')
                                             : line + std::string(kHelpColumn - line.size(), ' ');
        std::size_t column = kHelpColumn;
        std::string_view help = option.help;
        bool first = true;
        while (!help.empty()) {
            const auto space = help.find(' ');
            const auto word = help.substr(0, space);
            if (!first && column + 1 + word.size() > kWidth) {
                line += "\n" + std::string(kHelpColumn, ' ');
                column = kHelpColumn;
            } else if (!first) {
                line += ' ';
                ++column;
            }
            line += word;
            column += word.size();
            first = false;
            help = space == std::string_view::npos ? std::string_view{} : help.substr(space + 1);
        }
        text += line + "\n";
    }
    return text;
}

}  // namespace pelm::cli
