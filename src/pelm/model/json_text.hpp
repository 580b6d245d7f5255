#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

namespace pelm {

/// Nesting deeper than this is refused before parsing: deep documents would otherwise cost stack in the
/// parser's users (copies, dumps, destruction), and no reply of the server nests beyond a handful of levels.
inline constexpr std::size_t kMaxJSONDepth = 128;

/// Parses JSON text; none for malformed text or text nested deeper than `maxDepth`. Never throws.
std::optional<nlohmann::ordered_json> parseJSONText(std::string_view text,
                                                    std::size_t maxDepth = kMaxJSONDepth);

}  // namespace pelm
