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

/// Adds whole seconds to an instant (negative seconds go back in time). The result saturates at the ends of
/// what a Date can hold: a cool-down of "9999999999 seconds" means as late as the clock can say, never an
/// overflow into the past.
inline Date dateByAddingSeconds(Date date, long long seconds) {
    using Ticks = Date::duration;
    constexpr auto ticksPerSecond = std::chrono::duration_cast<Ticks>(std::chrono::seconds(1)).count();
    const auto now = date.time_since_epoch().count();
    Ticks::rep delta = 0;
    Ticks::rep sum = 0;
    if (__builtin_mul_overflow(static_cast<Ticks::rep>(seconds), ticksPerSecond, &delta) ||
        __builtin_add_overflow(now, delta, &sum)) {
        return seconds < 0 ? Date::min() : Date::max();
    }
    return Date{Ticks{sum}};
}

}  // namespace pelm
