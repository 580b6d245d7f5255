#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

namespace pelm {

/// Nesting deeper than this is refused before parsing: deep documents would otherwise cost stack in the
/// parser's users (copies, dumps), so a limit there must be. Real replies nest a handful of levels; this one
/// is far past any, and still a few hundred kilobytes of stack for the deepest copy or dump.
inline constexpr std::size_t kMaxJSONDepth = 1023;

/// Parses JSON text; none for malformed text or text nested deeper than `maxDepth`. Never throws.
std::optional<nlohmann::ordered_json> parseJSONText(std::string_view text,
                                                    std::size_t maxDepth = kMaxJSONDepth);

/// Why `text` is not JSON, for a person fixing the file: "line 3, column 14: syntax error while parsing
/// object - unexpected '}'; expected string literal"; none when it parses. Never throws.
std::optional<std::string> jsonTextProblem(std::string_view text, std::size_t maxDepth = kMaxJSONDepth);

/// The JSON text of a value (indented by `indent` spaces per level, or on one line when negative). Never
/// throws: a text that is not valid UTF-8, which JSON cannot carry, has its bad bytes replaced by U+FFFD.
/// Where losing bytes matters, check with isValidUTF8 first.
std::string jsonText(const nlohmann::ordered_json& value, int indent = -1);

/// Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF).
bool isValidUTF8(std::string_view text);

}  // namespace pelm
