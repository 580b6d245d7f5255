#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <pelm/model/date.hpp>
#include <pelm/model/json_binding.hpp>

namespace pelm {

/// Dates travel as "yyyy-MM-dd'T'HH:mm:ss.SSSZ": 2016-07-16T19:20:30.450+0200, written in the local time
/// zone and read back with the offset in the text deciding the instant.
class JSONDateTransform {
  public:
    /// The date's text, or none for no date.
    std::optional<std::string> transformToJSON(const std::optional<Date>& value) const;
    /// A date for any JSON string (the current instant when the text does not match the form); none for a
    /// missing value, null, or any other JSON type.
    std::optional<Date> transformFromJSON(const JSON* value) const;
};

/// The date text in the local time zone, to the millisecond.
std::string dateText(Date date);
/// The instant a date text names, or none when the text does not match the form in full.
std::optional<Date> dateFromText(std::string_view text);
/// The short human form "2016-07-16 17:20:30 +0000", always in UTC, to the second.
std::string dateDescription(Date date);

}  // namespace pelm
