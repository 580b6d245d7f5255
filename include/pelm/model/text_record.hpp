#pragma once

#include <memory>
#include <optional>
#include <string>

#include <pelm/model/language_code.hpp>

namespace pelm {

/// The text of a content, its title and its language.
struct TextRecord {
    /// The title.
    std::optional<std::string> name;
    /// The text itself.
    std::optional<std::string> text;
    /// Its language.
    std::shared_ptr<LanguageCode> languageCode;
};

}  // namespace pelm
