#pragma once

#include <pelm/export.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <pelm/model/meta_info.hpp>
#include <pelm/model/text_record.hpp>

namespace pelm {

/// What the server assigns to a beacon for entering or leaving it. The library reads only `coolDownTime`;
/// everything else reaches the host app as the server sent it.
class PELM_EXPORT Content : public Mappable<Content> {
  public:
    enum class DisplayType { entry, exit };

    std::optional<std::int64_t> id;
    std::optional<bool> active;
    std::optional<std::string> contentType;
    std::optional<DisplayType> displayType;
    std::optional<std::int64_t> delayTime;
    /// Seconds the same kind of content of the same beacon is held back after it was handed on.
    std::optional<std::int64_t> coolDownTime;
    // The activity period stays the server's text; it is not a date field.
    std::optional<std::string> activeDateStart;
    std::optional<std::string> activeDateStop;
    std::optional<std::string> activeTimeStart;
    std::optional<std::string> activeTimeStop;
    std::shared_ptr<MetaInfo> metaInfo;
    std::shared_ptr<TextRecord> textRecord;
    /// Free data for the host app, kept whole; always an object.
    JSON extraInfo = JSON::object();

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("id", self.id);
        map("active", self.active);
        map("content_type", self.contentType);
        map("display_type", self.displayType);
        map("delay_time", self.delayTime);
        map("cool_down_time", self.coolDownTime);
        map("active_date_start", self.activeDateStart);
        map("active_date_stop", self.activeDateStop);
        map("active_time_start", self.activeTimeStart);
        map("active_time_stop", self.activeTimeStop);
        map("meta_info", self.metaInfo);
        map("text_record", self.textRecord);
        map("extra_info", self.extraInfo);
    }
};

/// The texts of Content::DisplayType on the wire.
template <>
struct RawValues<Content::DisplayType> {
    static constexpr std::array table{std::pair{Content::DisplayType::entry, std::string_view{"entry"}},
                                      std::pair{Content::DisplayType::exit, std::string_view{"exit"}}};
};

}  // namespace pelm
