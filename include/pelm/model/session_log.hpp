#pragma once

#include <pelm/export.hpp>

#include <optional>
#include <string>

#include <pelm/model/date.hpp>
#include <pelm/model/json_date_transform.hpp>

namespace pelm {

/// One beacon of a visit: when it was entered and, once left, when it was left. Shared by reference:
/// the same line moves from the open list to the finished one.
class PELM_EXPORT SessionLog : public Mappable<SessionLog> {
  public:
    std::optional<std::string> uuid;
    std::optional<std::string> major;
    std::optional<std::string> minor;
    std::optional<Date> entranceTime;
    std::optional<Date> exitTime;

    SessionLog() = default;
    SessionLog(std::string uuid, std::string major, std::string minor, Date entranceTime)
        : uuid(std::move(uuid)),
          major(std::move(major)),
          minor(std::move(minor)),
          entranceTime(entranceTime) {}

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("uuid", self.uuid);
        map("major", self.major);
        map("minor", self.minor);
        map("entrance_time", self.entranceTime, JSONDateTransform{});
        map("exit_time", self.exitTime, JSONDateTransform{});
    }
};

}  // namespace pelm
