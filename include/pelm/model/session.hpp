#pragma once

#include <optional>
#include <string>

#include <pelm/model/date.hpp>

namespace pelm {

/// One visit, filled when it ends and sent with its log lines.
struct Session {
    /// The host app's version.
    std::optional<std::string> appVersion;
    /// The library's version as the server knows it.
    std::optional<std::string> sdkVersion;
    /// The operating system, as the server knows it.
    std::optional<std::string> operatingSystem;
    /// When the visit began: the first finished beacon's entrance.
    std::optional<Date> startTime;
    /// When the visit ended.
    std::optional<Date> endTime;
};

}  // namespace pelm
