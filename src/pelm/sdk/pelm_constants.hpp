#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace pelm {

/// Fixed texts that go into requests and visit records, and the server's base address.
struct PelmConstants {
    static constexpr std::string_view sdkVersion = "1.0.0";
    /// The name the server has always been sent for the operating system.
    static constexpr std::string_view operatingSystem = "iOS";
    static constexpr std::string_view apiBasePath = "/api/v1";

    /// The stored host as it was when first read; never refreshed afterwards.
    static std::optional<std::string> apiHost();

    /// "https://" and the host stored now, exactly as stored; none when no host is stored.
    static std::optional<std::string> apiURL();
};

}  // namespace pelm
