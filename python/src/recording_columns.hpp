#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "huge_page_allocator.hpp"
#include "mapped_column.hpp"

namespace pelm::python {

/// Texts that repeat (addresses, receivers, UUIDs) kept once each and named by their number, as a pandas
/// category is: a recording of millions of advertisements has thousands of senders. Asked once per
/// advertisement, so the table is open-addressed in one block, and a text of up to 24 bytes (a Bluetooth
/// address) is kept in its slot as three words: a lookup compares words in one cache line, which
/// `prefetch` can ask for while the reader works on.
class TextCodes {
  public:
    /// A text's first 24 bytes as words (zero beyond its end), its length and its hash.
    struct Key {
        std::array<std::uint64_t, 3> words{};
        std::uint64_t length = 0;
        std::uint64_t hash = 0;
    };
    static constexpr std::size_t kInline = sizeof(Key::words);
    static Key keyOf(std::string_view text);

    /// Brings the slot of this key into the cache; a later code() of it finds it there.
    void prefetch(const Key& key) const { __builtin_prefetch(&slots_[key.hash & (slots_.size() - 1)]); }
    std::int32_t code(std::string_view text) { return code(text, keyOf(text)); }
    std::int32_t code(std::string_view text, const Key& key);
    const std::vector<std::string>& texts() const { return texts_; }

  private:
    struct Slot {
        std::array<std::uint64_t, 3> words{};
        std::uint32_t length = 0;
        std::int32_t code = -1;
    };
    static_assert(sizeof(Slot) == 32);
    void grow();

    HugeVector<Slot> slots_ = HugeVector<Slot>(1024);
    std::vector<std::string> texts_;
};

/// A whole recording as columns, one entry per advertisement, in file order.
struct RecordingColumns {
    /// Microseconds since 1970, UTC.
    MappedColumn<std::int64_t> time;
    MappedColumn<std::int32_t> address, scanner;
    /// -1 where the advertisement holds no iBeacon frame, and so are major and minor; power is 0 there.
    MappedColumn<std::int32_t> uuid, major, minor;
    MappedColumn<std::int16_t> rssi, power;
    TextCodes addresses, scanners, uuids;
    std::string format;
    std::optional<std::string> warning;
};

/// Reads `file` to its end. Throws platform::RecordingError for a file that is not what it claims.
RecordingColumns readColumns(const std::filesystem::path& file);

}  // namespace pelm::python
