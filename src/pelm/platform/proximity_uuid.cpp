#include <pelm/platform/proximity_uuid.hpp>

#include <pelm/model/hex_digits.hpp>

namespace pelm::platform {
namespace {

bool isHyphenPosition(std::size_t i) {
    return i == 8 || i == 13 || i == 18 || i == 23;
}

}  // namespace

std::optional<ProximityUUID> ProximityUUID::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    ProximityUUID uuid;
    std::size_t nibble = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isHyphenPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            continue;
        }
        const int value = hexDigitValue(text[i]);
        if (value < 0) return std::nullopt;
        auto& byte = uuid.bytes[nibble / 2];
        byte = static_cast<std::uint8_t>(nibble % 2 == 0 ? value << 4 : byte | value);
        ++nibble;
    }
    return uuid;
}

std::string ProximityUUID::uuidString() const {
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kHexDigits[bytes[i] >> 4];
        text += kHexDigits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace pelm::platform
