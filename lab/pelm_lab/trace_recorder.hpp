#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>

#include <pelm/platform/linux/bluez_advertisements.hpp>

namespace pelm::lab {

/// Writes what the BlueZ feed hears as the JSON trace, one line per advertisement as it arrives, until
/// `stop()` holds (asked every 100 ms) or `duration` has passed. Discovery ends and every line heard is
/// written before this returns, so the trace is whole however it ends. Answers how many lines were written;
/// throws std::runtime_error when BlueZ has no adapter or refuses to scan.
std::uint64_t recordTrace(const platform::BluezOptions& bluez, std::ostream& out,
                          std::optional<std::chrono::milliseconds> duration,
                          const std::function<bool()>& stop);

}  // namespace pelm::lab
