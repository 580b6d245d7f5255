#pragma once

#include <array>
#include <cstdint>

namespace pelm {

/// Upper-case hexadecimal digits, by value.
inline constexpr char kHexDigits[] = "0123456789ABCDEF";

/// The value of one hexadecimal digit of either case; -1 for any other character.
constexpr int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// hexDigitValue for every byte, 0xFF for what is not a digit: one look-up a character where a long text of
/// hexadecimal is decoded.
inline constexpr std::array<std::uint8_t, 256> kHexDigitValues = [] {
    std::array<std::uint8_t, 256> values{};
    for (int c = 0; c < 256; ++c) {
        const int value = hexDigitValue(static_cast<char>(c));
        values[static_cast<std::size_t>(c)] = value < 0 ? 0xFF : static_cast<std::uint8_t>(value);
    }
    return values;
}();

}  // namespace pelm
