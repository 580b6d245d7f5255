#pragma once

#include <pelm/export.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace pelm::platform {

/// A beacon's 128-bit proximity UUID.
struct ProximityUUID {
    /// The 16 bytes, most significant first.
    std::array<std::uint8_t, 16> bytes{};

    /// Parses the canonical 8-4-4-4-12 hexadecimal form, either case; none for anything else.
    PELM_EXPORT static std::optional<ProximityUUID> parse(std::string_view text);
    /// The canonical upper-case text, as the platform renders a UUID.
    PELM_EXPORT std::string uuidString() const;

    /// Equal when the bytes are.
    friend bool operator==(const ProximityUUID&, const ProximityUUID&) = default;
};

}  // namespace pelm::platform
