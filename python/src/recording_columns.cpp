#include "recording_columns.hpp"

#include <array>
#include <map>

#include <pelm/platform/ble/ibeacon_advertisement.hpp>
#include <pelm/platform/ble/recording_reader.hpp>

namespace pelm::python {

std::int32_t TextCodes::code(const std::string& text) {
    const auto found = codes_.find(text);
    if (found != codes_.end()) return found->second;
    const auto next = static_cast<std::int32_t>(texts_.size());
    codes_.emplace(text, next);
    texts_.push_back(text);
    return next;
}

namespace {

// A recording names few UUIDs; they are told apart by their bytes, and written as text once each.
class UuidCodes {
  public:
    explicit UuidCodes(TextCodes& texts) : texts_(texts) {}
    std::int32_t code(const platform::ProximityUUID& uuid) {
        const auto found = codes_.find(uuid.bytes);
        if (found != codes_.end()) return found->second;
        const auto next = texts_.code(uuid.uuidString());
        codes_.emplace(uuid.bytes, next);
        return next;
    }

  private:
    TextCodes& texts_;
    std::map<std::array<std::uint8_t, 16>, std::int32_t> codes_;
};

void add(RecordingColumns& columns, UuidCodes& uuids, const platform::HeardAdvertisement& heard) {
    columns.time.push_back(heard.at.time_since_epoch().count());
    columns.address.push_back(columns.addresses.code(heard.address));
    columns.scanner.push_back(columns.scanners.code(heard.receiver));
    columns.rssi.push_back(static_cast<std::int16_t>(heard.rssi));
    const auto frame = platform::parseIBeacon(heard.data);
    columns.uuid.push_back(frame ? uuids.code(frame->proximityUUID) : -1);
    columns.major.push_back(frame ? frame->major : -1);
    columns.minor.push_back(frame ? frame->minor : -1);
    columns.power.push_back(frame ? frame->measuredPower : 0);
}

}  // namespace

RecordingColumns readColumns(const std::filesystem::path& file) {
    RecordingColumns columns;
    UuidCodes uuids(columns.uuids);
    const auto reader = platform::RecordingReader::open(file);
    columns.format = reader->format();
    platform::HeardAdvertisement heard;
    while (reader->next(heard)) add(columns, uuids, heard);
    columns.warning = reader->warning();
    return columns;
}

}  // namespace pelm::python
