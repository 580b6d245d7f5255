#pragma once

#include <pelm/export.hpp>

#include <memory>
#include <optional>
#include <string>

#include <pelm/model/language_code.hpp>

namespace pelm {

/// The text of a content, its title and its language.
class PELM_EXPORT TextRecord : public Mappable<TextRecord> {
  public:
    std::optional<std::string> name;
    std::optional<std::string> text;
    std::shared_ptr<LanguageCode> languageCode;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("name", self.name);
        map("text", self.text);
        map("language_code", self.languageCode);
    }
};

}  // namespace pelm
