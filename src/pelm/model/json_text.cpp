#include <pelm/model/json_text.hpp>

#include <cstdint>

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

std::string jsonText(const nlohmann::ordered_json& value, int indent) {
    return value.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

bool isValidUTF8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = 0;
        std::uint32_t point = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
            point = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            point = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            point = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) return false;
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            point = point << 6 | (next & 0x3F);
        }
        const bool overlong = (length == 3 && point < 0x800) || (length == 4 && point < 0x10000);
        if (overlong || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
        i += length;
    }
    return true;
}

std::optional<std::string> jsonTextProblem(std::string_view text, std::size_t maxDepth) {
    if (!nestsWithin(text, maxDepth)) return "it nests deeper than " + std::to_string(maxDepth) + " levels";
    try {
        [[maybe_unused]] const auto parsed = nlohmann::ordered_json::parse(text);
        return std::nullopt;
    } catch (const nlohmann::json::parse_error& error) {
        // Where, counted here (the parser's own count differs between versions), then what, without the
        // parser's echo of the file's bytes, which may be anything.
        const auto upTo = std::min<std::size_t>(error.byte > 0 ? error.byte - 1 : 0, text.size());
        std::size_t line = 1, column = 1;
        for (std::size_t i = 0; i < upTo; ++i) {
            if (text[i] == '\n') {
                ++line;
                column = 1;
            } else if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
                ++column;
            }
        }
        std::string what = error.what();
        if (const auto at = what.find("syntax error"); at != std::string::npos) what.erase(0, at);
        if (const auto echo = what.find("; last read"); echo != std::string::npos) {
            const auto expected = what.find("; expected", echo);
            what.erase(echo, expected == std::string::npos ? std::string::npos : expected - echo);
        }
        return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": " + what;
    }
}

std::optional<nlohmann::ordered_json> parseJSONText(std::string_view text, std::size_t maxDepth) {
    if (!nestsWithin(text, maxDepth)) return std::nullopt;
    auto parsed = nlohmann::ordered_json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded()) return std::nullopt;
    return parsed;
}

}  // namespace pelm
