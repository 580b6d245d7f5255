#include <pelm/platform/ble/hci_packets.hpp>

#include <pelm/model/hex_digits.hpp>

namespace pelm::platform {
namespace {

constexpr std::uint8_t kLeMetaEvent = 0x3E;
constexpr std::uint8_t kLegacyAdvertisingReport = 0x02;
constexpr std::uint8_t kExtendedAdvertisingReport = 0x0D;
constexpr std::uint32_t kAdvertisingAccessAddress = 0x8E89BED6;

// Legacy report: event type, address type, address (6), data length, data, RSSI.
void legacyReports(std::span<const std::uint8_t> p, HeardBatch& out) {
    if (p.empty()) return;
    const std::size_t count = p[0];
    std::size_t at = 1;
    for (std::size_t i = 0; i < count; ++i) {
        if (at + 9 > p.size()) return;
        const std::size_t length = p[at + 8];
        if (at + 9 + length + 1 > p.size()) return;
        auto& heard = out.add();
        writeBluetoothAddress(&p[at + 2], heard.address);
        heard.data.assign(p.begin() + static_cast<std::ptrdiff_t>(at + 9),
                          p.begin() + static_cast<std::ptrdiff_t>(at + 9 + length));
        heard.rssi = static_cast<std::int8_t>(p[at + 9 + length]);
        at += 9 + length + 1;
    }
}

// Extended report: 24 fixed bytes (event type 2, address type, address 6, PHYs 2, SID, TX power, RSSI,
// periodic interval 2, direct address type, direct address 6, data length), then the data.
void extendedReports(std::span<const std::uint8_t> p, HeardBatch& out) {
    if (p.empty()) return;
    const std::size_t count = p[0];
    std::size_t at = 1;
    for (std::size_t i = 0; i < count; ++i) {
        if (at + 24 > p.size()) return;
        const std::size_t length = p[at + 23];
        if (at + 24 + length > p.size()) return;
        auto& heard = out.add();
        writeBluetoothAddress(&p[at + 3], heard.address);
        heard.rssi = static_cast<std::int8_t>(p[at + 13]);
        // 127 (0x7F) is the controller's "not available".
        if (p[at + 12] != 0x7F) heard.transmissionPower = static_cast<std::int8_t>(p[at + 12]);
        heard.data.assign(p.begin() + static_cast<std::ptrdiff_t>(at + 24),
                          p.begin() + static_cast<std::ptrdiff_t>(at + 24 + length));
        at += 24 + length;
    }
}

}  // namespace

HeardAdvertisement& HeardBatch::add() {
    if (size_ == items_.size()) items_.emplace_back();
    auto& heard = items_[size_++];
    heard.rssi = 0;
    heard.uniqueID.reset();
    heard.firmwareVersion.reset();
    heard.batteryLevel.reset();
    heard.transmissionPower.reset();
    heard.at = Date{};
    heard.receiver.clear();
    return heard;
}

void writeBluetoothAddress(const std::uint8_t* littleEndian, std::string& text) {
    text.resize(17);
    for (int i = 5, at = 0; i >= 0; --i, at += 3) {
        text[at] = kHexDigits[littleEndian[i] >> 4];
        text[at + 1] = kHexDigits[littleEndian[i] & 0x0F];
        if (i > 0) text[at + 2] = ':';
    }
}

void advertisementsInHciEvent(std::span<const std::uint8_t> event, HeardBatch& out) {
    if (event.size() < 3 || event[0] != kLeMetaEvent) return;
    const auto parameters = event.subspan(2, std::min<std::size_t>(event[1], event.size() - 2));
    if (parameters.empty()) return;
    const auto body = parameters.subspan(1);
    if (parameters[0] == kLegacyAdvertisingReport) legacyReports(body, out);
    if (parameters[0] == kExtendedAdvertisingReport) extendedReports(body, out);
}

void advertisementInLinkLayerPacket(std::span<const std::uint8_t> packet, int rssi, HeardBatch& out) {
    // access address (4), header (2), advertiser's address (6), data
    if (packet.size() < 12) return;
    const auto accessAddress = std::uint32_t{packet[3]} << 24 | std::uint32_t{packet[2]} << 16 |
                               std::uint32_t{packet[1]} << 8 | packet[0];
    if (accessAddress != kAdvertisingAccessAddress) return;
    const auto type = packet[4] & 0x0F;
    constexpr int kAdvInd = 0, kAdvNonconnInd = 2, kScanRsp = 4, kAdvScanInd = 6;
    if (type != kAdvInd && type != kAdvNonconnInd && type != kScanRsp && type != kAdvScanInd) return;
    const std::size_t length = packet[5];
    if (length < 6 || 6 + length > packet.size()) return;
    auto& heard = out.add();
    writeBluetoothAddress(&packet[6], heard.address);
    heard.data.assign(packet.begin() + 12, packet.begin() + static_cast<std::ptrdiff_t>(6 + length));
    heard.rssi = rssi;
}

}  // namespace pelm::platform
