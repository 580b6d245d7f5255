#pragma once

#include <pelm/export.hpp>

#include <optional>
#include <string>

#include <pelm/model/json_binding.hpp>

namespace pelm {

/// Where a content's image is and where it links to, kept as the server's text.
class PELM_EXPORT MetaInfo : public Mappable<MetaInfo> {
  public:
    std::optional<std::string> imageURI;
    std::optional<std::string> linkURI;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("image_uri", self.imageURI);
        map("link_uri", self.linkURI);
    }
};

}  // namespace pelm
