#pragma once

#include <nlohmann/json.hpp>

namespace pelm {

/// A JSON value with its members in the order they came: the free data a content carries for the host app
/// (`Content::extraInfo`), as the server sent it.
using JSON = nlohmann::ordered_json;

}  // namespace pelm
