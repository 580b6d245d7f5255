#pragma once

#include <pelm/export.hpp>

#include <optional>
#include <string>

#include <pelm/model/date.hpp>
#include <pelm/model/json_date_transform.hpp>

namespace pelm {

/// One visit, filled when it ends and sent with its log lines.
class PELM_EXPORT Session : public Mappable<Session> {
  public:
    std::optional<std::string> appVersion;
    std::optional<std::string> sdkVersion;
    std::optional<std::string> operatingSystem;
    std::optional<Date> startTime;
    std::optional<Date> endTime;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("app_version", self.appVersion);
        map("sdk_version", self.sdkVersion);
        map("operating_system", self.operatingSystem);
        map("start_time", self.startTime, JSONDateTransform{});
        map("end_time", self.endTime, JSONDateTransform{});
    }
};

}  // namespace pelm
