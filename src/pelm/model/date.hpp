#pragma once

#include <chrono>

namespace pelm {

/// An instant, as the library passes it around. Text forms live in json_date_transform.hpp.
using Date = std::chrono::system_clock::time_point;

/// True exactly when `self` is later than `other`.
inline bool isGreaterThanDate(Date self, Date other) {
    return self > other;
}
/// True exactly when `self` is earlier than `other`.
inline bool isLessThanDate(Date self, Date other) {
    return self < other;
}
/// True exactly when both name the same instant, sub-second part included.
inline bool equalToDate(Date self, Date other) {
    return self == other;
}

/// Adds whole seconds to an instant (negative seconds go back in time).
inline Date dateByAddingSeconds(Date date, long long seconds) {
    return date + std::chrono::seconds(seconds);
}

}  // namespace pelm
