#pragma once

#include <optional>
#include <string>

namespace pelm {

/// The language of a content text.
struct LanguageCode {
    /// The language's code, such as "de".
    std::optional<std::string> code;
    /// The language's name.
    std::optional<std::string> name;
};

}  // namespace pelm
