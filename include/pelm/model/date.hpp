#pragma once

#include <chrono>

namespace pelm {

/// An instant, as the library passes it around, to the microsecond. Its range (about 290,000 years either
/// side of 1970) holds every instant the date text can write, years 0001 to 9999; the system clock's own
/// nanoseconds would end in 1677 and 2262. Text forms live in json_date_transform.hpp.
using Date = std::chrono::sys_time<std::chrono::microseconds>;

/// The first and the last instant a date text can write: 0001-01-01T00:00:00 and 9999-12-31T23:59:59.999999
/// UTC. Arithmetic saturates at them, and text of a Date beyond them names the nearer one.
inline constexpr Date kEarliestDate{std::chrono::sys_days{std::chrono::year{1} / 1 / 1}};
inline constexpr Date kLatestDate{std::chrono::sys_days{std::chrono::year{10000} / 1 / 1} -
                                  std::chrono::microseconds{1}};

/// The system clock's now, as a Date.
inline Date systemNow() {
    return std::chrono::floor<Date::duration>(std::chrono::system_clock::now());
}

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

/// Adds whole seconds to an instant (negative seconds go back in time). The result saturates at
/// kEarliestDate and kLatestDate: a cool-down of "99999999999999 seconds" means as late as a date can say,
/// never an overflow into the past.
inline Date dateByAddingSeconds(Date date, long long seconds) {
    using Ticks = Date::duration;
    constexpr auto ticksPerSecond = std::chrono::duration_cast<Ticks>(std::chrono::seconds(1)).count();
    const auto now = date.time_since_epoch().count();
    Ticks::rep delta = 0;
    Ticks::rep sum = 0;
    if (__builtin_mul_overflow(static_cast<Ticks::rep>(seconds), ticksPerSecond, &delta) ||
        __builtin_add_overflow(now, delta, &sum)) {
        return seconds < 0 ? kEarliestDate : kLatestDate;
    }
    const Date result{Ticks{sum}};
    return result < kEarliestDate ? kEarliestDate : result > kLatestDate ? kLatestDate : result;
}

}  // namespace pelm
