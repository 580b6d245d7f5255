#pragma once

#include <optional>
#include <string>

#include <pelm/model/date.hpp>

namespace pelm {

/// One beacon of a visit: when it was entered and, once left, when it was left. Shared by reference:
/// the same line moves from the open list to the finished one.
struct SessionLog {
    /// The beacon's proximity UUID, as text.
    std::optional<std::string> uuid;
    /// The beacon's major, as decimal text.
    std::optional<std::string> major;
    /// The beacon's minor, as decimal text.
    std::optional<std::string> minor;
    /// When the beacon's region was entered.
    std::optional<Date> entranceTime;
    /// When it was left; none while the line is open.
    std::optional<Date> exitTime;

    SessionLog() = default;
    /// An open line: the beacon and when it was entered.
    SessionLog(std::string uuid, std::string major, std::string minor, Date entranceTime)
        : uuid(std::move(uuid)),
          major(std::move(major)),
          minor(std::move(minor)),
          entranceTime(entranceTime) {}
};

}  // namespace pelm
