#pragma once

#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>

namespace pelm::cli {

/// The whole number `text` spells exactly (decimal digits, an optional "-"), when it lies in [low, high].
/// Anything else, " 80", "80x", "+80" or "8e1" included, is none: a typo must not become a number.
inline std::optional<long long> wholeNumber(std::string_view text, long long low, long long high) {
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (value < low || value > high) return std::nullopt;
    return value;
}

/// The finite decimal number `text` spells exactly ("1", "0.5", "2e3"); none for anything else.
inline std::optional<double> decimalNumber(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

}  // namespace pelm::cli
