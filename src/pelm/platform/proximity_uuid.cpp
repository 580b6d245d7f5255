#include <pelm/platform/proximity_uuid.hpp>

namespace pelm::platform {
namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

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
        const int value = hexValue(text[i]);
        if (value < 0) return std::nullopt;
        auto& byte = uuid.bytes[nibble / 2];
        byte = static_cast<std::uint8_t>(nibble % 2 == 0 ? value << 4 : byte | value);
        ++nibble;
    }
    return uuid;
}

std::string ProximityUUID::uuidString() const {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace pelm::platform
