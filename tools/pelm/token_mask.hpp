#pragma once

#include <string>
#include <string_view>

namespace pelm::cli {

/// The app token as the tool shows it unless asked not to: its first five and last four characters
/// ("demo-…oken"), or only "…" when that would show most of a short token or it is not plain ASCII.
std::string maskedToken(std::string_view token);

}  // namespace pelm::cli
