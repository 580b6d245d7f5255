#pragma once

#include <optional>
#include <string>

namespace pelm {

/// Where a content's image is and where it links to, kept as the server's text.
struct MetaInfo {
    /// Where the content's image is.
    std::optional<std::string> imageURI;
    /// Where the content links to.
    std::optional<std::string> linkURI;
};

}  // namespace pelm
