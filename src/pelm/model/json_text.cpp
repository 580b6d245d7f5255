#include <pelm/model/json_text.hpp>

namespace pelm {
namespace {

// Counts bracket nesting outside strings. Cheap, and exact for valid JSON; for invalid JSON the parser
// refuses the text anyway.
bool nestsWithin(std::string_view text, std::size_t maxDepth) {
    std::size_t depth = 0;
    bool inString = false;
    bool escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > maxDepth) return false;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

}  // namespace

std::optional<nlohmann::ordered_json> parseJSONText(std::string_view text, std::size_t maxDepth) {
    if (!nestsWithin(text, maxDepth)) return std::nullopt;
    auto parsed = nlohmann::ordered_json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

}  // namespace pelm
