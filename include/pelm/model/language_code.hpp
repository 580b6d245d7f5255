#pragma once

#include <pelm/export.hpp>

#include <optional>
#include <string>

#include <pelm/model/json_binding.hpp>

namespace pelm {

/// The language of a content text.
class PELM_EXPORT LanguageCode : public Mappable<LanguageCode> {
  public:
    std::optional<std::string> code;
    std::optional<std::string> name;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("code", self.code);
        map("name", self.name);
    }
};

}  // namespace pelm
