#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <pelm/model/content_display_type.hpp>
#include <pelm/model/json.hpp>
#include <pelm/model/meta_info.hpp>
#include <pelm/model/text_record.hpp>

namespace pelm {

/// What the server assigns to a beacon for entering or leaving it. The library reads only `coolDownTime`;
/// everything else reaches the host app as the server sent it.
/// \ingroup host_api
struct Content {
    /// When the content is shown: on entering its beacon's region, or on leaving it.
    using DisplayType = ContentDisplayType;

    /// The server's id of the content.
    std::optional<std::int64_t> id;
    /// Whether the server has the content switched on.
    std::optional<bool> active;
    /// The kind of content, as the server names it.
    std::optional<std::string> contentType;
    /// Entry or exit content.
    std::optional<DisplayType> displayType;
    /// Seconds the server asks the host app to wait before showing it.
    std::optional<std::int64_t> delayTime;
    /// Seconds the same kind of content of the same beacon is held back after it was handed on.
    std::optional<std::int64_t> coolDownTime;
    // The activity period stays the server's text; it is not a date field.
    /// First day of the activity period, as the server wrote it.
    std::optional<std::string> activeDateStart;
    /// Last day of the activity period, as the server wrote it.
    std::optional<std::string> activeDateStop;
    /// Daily start of the activity period, as the server wrote it.
    std::optional<std::string> activeTimeStart;
    /// Daily end of the activity period, as the server wrote it.
    std::optional<std::string> activeTimeStop;
    /// Where its image is and where it links to.
    std::shared_ptr<MetaInfo> metaInfo;
    /// Its title, text and language.
    std::shared_ptr<TextRecord> textRecord;
    /// Free data for the host app, kept whole; always an object.
    JSON extraInfo = JSON::object();
};

}  // namespace pelm
