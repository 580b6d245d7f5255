#include <pelm/model/json_date_transform.hpp>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include <pelm/platform/platform.hpp>

namespace pelm {
namespace {

using namespace std::chrono;

struct Fields {
    int year, month, day, hour, minute, second;
};

Fields fieldsOf(sys_seconds instant) {
    const auto days = floor<std::chrono::days>(instant);
    const year_month_day ymd{days};
    const hh_mm_ss clock{instant - days};
    return {static_cast<int>(ymd.year()),
            static_cast<int>(static_cast<unsigned>(ymd.month())),
            static_cast<int>(static_cast<unsigned>(ymd.day())),
            static_cast<int>(clock.hours().count()),
            static_cast<int>(clock.minutes().count()),
            static_cast<int>(clock.seconds().count())};
}

// The local offset at an instant, in whole minutes. Historic zones have offsets with seconds (local mean
// time); the text form cannot carry those, so the wall time is written for the truncated offset and the
// text still names the exact instant.
minutes localOffset(sys_seconds instant) {
    const std::time_t t = instant.time_since_epoch().count();
    std::tm local{};
    if (localtime_r(&t, &local) == nullptr) return minutes{0};
    return duration_cast<minutes>(std::chrono::seconds{local.tm_gmtoff});
}

// Reads exactly `count` ASCII digits.
bool digits(std::string_view text, std::size_t at, std::size_t count, int& out) {
    out = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') return false;
        out = out * 10 + (c - '0');
    }
    return true;
}

// The last instant the text form holds: it writes milliseconds.
constexpr auto kLatestText = floor<milliseconds>(kLatestDate);

}  // namespace

std::string dateText(Date date) {
    const auto millis = floor<milliseconds>(std::clamp(date, kEarliestDate, kLatestDate));
    const auto seconds = floor<std::chrono::seconds>(millis);
    auto offset = localOffset(seconds);
    auto f = fieldsOf(seconds + offset);
    // Within hours of the ends of the range, the local wall time may fall in a year four digits cannot
    // write; the same instant is then written in UTC.
    if (f.year < 0 || f.year > 9999) {
        offset = minutes{0};
        f = fieldsOf(seconds);
    }
    const auto magnitude = offset.count() < 0 ? -offset.count() : offset.count();
    char text[48];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d%c%02d%02d", f.year, f.month, f.day,
                  f.hour, f.minute, f.second, static_cast<int>((millis - seconds).count()),
                  offset.count() < 0 ? '-' : '+', static_cast<int>(magnitude / 60),
                  static_cast<int>(magnitude % 60));
    return text;
}

std::optional<Date> dateFromText(std::string_view text) {
    // yyyy-MM-ddTHH:mm:ss.SSS+HHMM
    if (text.size() != 28) return std::nullopt;
    if (text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' || text[16] != ':' ||
        text[19] != '.' || (text[23] != '+' && text[23] != '-')) {
        return std::nullopt;
    }
    int y, mo, d, h, mi, s, ms, oh, om;
    if (!digits(text, 0, 4, y) || !digits(text, 5, 2, mo) || !digits(text, 8, 2, d) ||
        !digits(text, 11, 2, h) || !digits(text, 14, 2, mi) || !digits(text, 17, 2, s) ||
        !digits(text, 20, 3, ms) || !digits(text, 24, 2, oh) || !digits(text, 26, 2, om)) {
        return std::nullopt;
    }
    const year_month_day ymd{year{y}, month{static_cast<unsigned>(mo)}, day{static_cast<unsigned>(d)}};
    if (!ymd.ok() || h > 23 || mi > 59 || s > 59 || oh > 23 || om > 59) return std::nullopt;
    const auto offset = (text[23] == '-' ? -1 : 1) * (hours{oh} + minutes{om});
    const auto wall = sys_days{ymd} + hours{h} + minutes{mi} + std::chrono::seconds{s} + milliseconds{ms};
    // Every text of this form names an instant a Date holds (years 0000 to 9999, whatever the offset); one
    // beyond the first or last a text can write names that one, as arithmetic past them does.
    return std::clamp(Date{wall - offset}, kEarliestDate, Date{kLatestText});
}

std::string dateDescription(Date date) {
    const auto f = fieldsOf(floor<std::chrono::seconds>(std::clamp(date, kEarliestDate, kLatestDate)));
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d +0000", f.year, f.month, f.day, f.hour,
                  f.minute, f.second);
    return text;
}

std::optional<std::string> JSONDateTransform::transformToJSON(const std::optional<Date>& value) const {
    if (!value) return std::nullopt;
    return dateText(*value);
}

std::optional<Date> JSONDateTransform::transformFromJSON(const JSON* value) const {
    if (value == nullptr || !value->is_string()) return std::nullopt;
    if (auto date = dateFromText(value->get_ref<const std::string&>())) return date;
    // A text that is not a date still stands for a date: the moment it was read.
    return platform::current()->mainQueue->now();
}

}  // namespace pelm
