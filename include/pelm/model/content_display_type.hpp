#pragma once

namespace pelm {

/// When a content is shown: on entering its beacon's region, or on leaving it. `Content::DisplayType` names
/// the same type; it stands on its own so that a header can speak of it without the whole record.
enum class ContentDisplayType { entry, exit };

}  // namespace pelm
