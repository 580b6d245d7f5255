#include "recording_columns.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>

#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

namespace pelm::python {

bool TextCodes::holds(const Slot& slot, std::string_view text, Hash hash) const {
    if (slot.hash != hash) return false;
    if (text.size() <= kInline)
        return slot.length == text.size() && std::memcmp(slot.text, text.data(), text.size()) == 0;
    return texts_[static_cast<std::size_t>(slot.code)] == text;
}

std::int32_t TextCodes::code(std::string_view text, Hash hash) {
    const auto mask = slots_.size() - 1;
    auto at = hash & mask;
    for (; slots_[at].code >= 0; at = (at + 1) & mask) {
        if (holds(slots_[at], text, hash)) return slots_[at].code;
    }
    auto& slot = slots_[at];
    slot.hash = hash;
    slot.code = static_cast<std::int32_t>(texts_.size());
    if (text.size() <= kInline) {
        slot.length = static_cast<std::uint8_t>(text.size());
        std::memcpy(slot.text, text.data(), text.size());
    }
    texts_.emplace_back(text);
    const auto code = slot.code;
    if (texts_.size() * 2 > slots_.size()) grow();
    return code;
}

void TextCodes::grow() {
    HugeVector<Slot> bigger(slots_.size() * 2);
    const auto mask = bigger.size() - 1;
    for (const auto& slot : slots_) {
        if (slot.code < 0) continue;
        auto at = slot.hash & mask;
        while (bigger[at].code >= 0) at = (at + 1) & mask;
        bigger[at] = slot;
    }
    slots_.swap(bigger);
}

namespace {

// A recording names few UUIDs; they are told apart by their bytes, and written as text once each.
class UuidCodes {
  public:
    explicit UuidCodes(TextCodes& texts) : texts_(texts) {}
    std::int32_t code(const platform::ProximityUUID& uuid) {
        if (last_ >= 0 && uuid.bytes == lastBytes_) return last_;
        const auto found = codes_.find(uuid.bytes);
        last_ = found != codes_.end() ? found->second : codes_[uuid.bytes] = texts_.code(uuid.uuidString());
        lastBytes_ = uuid.bytes;
        return last_;
    }

  private:
    TextCodes& texts_;
    std::map<std::array<std::uint8_t, 16>, std::int32_t> codes_;
    std::array<std::uint8_t, 16> lastBytes_{};
    std::int32_t last_ = -1;
};

void add(RecordingColumns& columns, UuidCodes& uuids, const platform::HeardAdvertisement& heard,
         TextCodes::Hash addressHash) {
    columns.time.push_back(heard.at.time_since_epoch().count());
    columns.address.push_back(columns.addresses.code(heard.address, addressHash));
    columns.scanner.push_back(columns.scanners.code(heard.receiver));
    columns.rssi.push_back(static_cast<std::int16_t>(heard.rssi));
    const auto frame = platform::parseIBeacon(heard.data);
    columns.uuid.push_back(frame ? uuids.code(frame->proximityUUID) : -1);
    columns.major.push_back(frame ? frame->major : -1);
    columns.minor.push_back(frame ? frame->minor : -1);
    columns.power.push_back(frame ? frame->measuredPower : 0);
}

// Room for the advertisements a file of this size likely holds (a btsnoop record of one is some 60 bytes),
// so that the columns are seldom copied as they grow.
void reserveFor(RecordingColumns& columns, const std::filesystem::path& file) {
    std::error_code unknown;
    const auto size = std::filesystem::file_size(file, unknown);
    const auto expected = unknown ? 0 : std::min<std::uintmax_t>(size / 64, 1u << 30);
    columns.time.reserve(expected);
    for (auto* column : {&columns.address, &columns.scanner, &columns.uuid, &columns.major, &columns.minor})
        column->reserve(expected);
    for (auto* column : {&columns.rssi, &columns.power}) column->reserve(expected);
}

}  // namespace

RecordingColumns readColumns(const std::filesystem::path& file) {
    RecordingColumns columns;
    reserveFor(columns, file);
    UuidCodes uuids(columns.uuids);
    const auto reader = platform::RecordingReader::open(file);
    columns.format = reader->format();
    // Two advertisements in hand: while one is added, the slot of the next one's address is on its way
    // into the cache.
    platform::HeardAdvertisement heard[2];
    bool more = reader->next(heard[0]);
    auto hash = more ? TextCodes::hashOf(heard[0].address) : 0;
    if (more) columns.addresses.prefetch(hash);
    for (int now = 0; more; now ^= 1) {
        const bool following = reader->next(heard[now ^ 1]);
        const auto nextHash = following ? TextCodes::hashOf(heard[now ^ 1].address) : 0;
        if (following) columns.addresses.prefetch(nextHash);
        add(columns, uuids, heard[now], hash);
        more = following;
        hash = nextHash;
    }
    columns.warning = reader->warning();
    return columns;
}

}  // namespace pelm::python
