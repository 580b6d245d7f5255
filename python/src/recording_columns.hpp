#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace pelm::python {

/// Texts that repeat (addresses, receivers, UUIDs) kept once each and named by their number, as a pandas
/// category is: a recording of millions of advertisements has a few thousand senders.
class TextCodes {
  public:
    std::int32_t code(const std::string& text);
    const std::vector<std::string>& texts() const { return texts_; }

  private:
    std::unordered_map<std::string, std::int32_t> codes_;
    std::vector<std::string> texts_;
};

/// A whole recording as columns, one entry per advertisement, in file order.
struct RecordingColumns {
    /// Microseconds since 1970, UTC.
    std::vector<std::int64_t> time;
    std::vector<std::int32_t> address, scanner;
    /// -1 where the advertisement holds no iBeacon frame, and so are major and minor; power is 0 there.
    std::vector<std::int32_t> uuid, major, minor;
    std::vector<std::int16_t> rssi, power;
    TextCodes addresses, scanners, uuids;
    std::string format;
    std::optional<std::string> warning;
};

/// Reads `file` to its end. Throws platform::RecordingError for a file that is not what it claims.
RecordingColumns readColumns(const std::filesystem::path& file);

}  // namespace pelm::python
