#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "huge_page_allocator.hpp"

namespace pelm::python {

/// Texts that repeat (addresses, receivers, UUIDs) kept once each and named by their number, as a pandas
/// category is: a recording of millions of advertisements has thousands of senders. Asked once per
/// advertisement, so the table is open-addressed in one block with short texts (a Bluetooth address) kept in
/// their slot: a lookup touches one cache line, which `prefetch` can ask for while the reader works.
class TextCodes {
  public:
    using Hash = std::uint64_t;
    static Hash hashOf(std::string_view text) { return std::hash<std::string_view>{}(text); }
    /// Brings the slot of a text of this hash into the cache; a later code() of it finds it there.
    void prefetch(Hash hash) const { __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]); }
    std::int32_t code(std::string_view text) { return code(text, hashOf(text)); }
    std::int32_t code(std::string_view text, Hash hash);
    const std::vector<std::string>& texts() const { return texts_; }

  private:
    static constexpr std::size_t kInline = 19;
    struct Slot {
        Hash hash = 0;
        std::int32_t code = -1;
        std::uint8_t length = 0;
        char text[kInline] = {};
    };
    static_assert(sizeof(Slot) == 32);
    bool holds(const Slot& slot, std::string_view text, Hash hash) const;
    void grow();

    HugeVector<Slot> slots_ = HugeVector<Slot>(1024);
    std::vector<std::string> texts_;
};

/// A whole recording as columns, one entry per advertisement, in file order.
struct RecordingColumns {
    /// Microseconds since 1970, UTC.
    HugeVector<std::int64_t> time;
    HugeVector<std::int32_t> address, scanner;
    /// -1 where the advertisement holds no iBeacon frame, and so are major and minor; power is 0 there.
    HugeVector<std::int32_t> uuid, major, minor;
    HugeVector<std::int16_t> rssi, power;
    TextCodes addresses, scanners, uuids;
    std::string format;
    std::optional<std::string> warning;
};

/// Reads `file` to its end. Throws platform::RecordingError for a file that is not what it claims.
RecordingColumns readColumns(const std::filesystem::path& file);

}  // namespace pelm::python
