#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <pelm/platform/ble/region_engine.hpp>

namespace pelm::platform {

/// The advertisements found in packets, kept from one packet to the next so that their texts and data reuse
/// the memory they had: reading a recording allocates nothing per advertisement.
class HeardBatch {
  public:
    /// A cleared advertisement at the end of the batch, to be filled.
    HeardAdvertisement& add();
    std::size_t size() const { return size_; }
    HeardAdvertisement& operator[](std::size_t index) { return items_[index]; }
    void clear() { size_ = 0; }

  private:
    std::vector<HeardAdvertisement> items_;
    std::size_t size_ = 0;
};

/// Adds the advertisements in one HCI event as it travels from controller to host (event code, parameter
/// length, parameters; no H4 type byte) to `out`: the reports of an LE Meta event's legacy (0x02) or extended
/// (0x0D) advertising report. Any other event, and a report that does not fit its event, adds nothing.
void advertisementsInHciEvent(std::span<const std::uint8_t> event, HeardBatch& out);

/// Adds the advertisement in one LE link-layer packet (access address, PDU header, payload; CRC optional) to
/// `out`: an ADV_IND, ADV_NONCONN_IND, ADV_SCAN_IND or SCAN_RSP on the advertising access address. `rssi` is
/// what the capture's radio header said. Nothing for any other packet.
void advertisementInLinkLayerPacket(std::span<const std::uint8_t> packet, int rssi, HeardBatch& out);

/// Writes "A4:C1:38:01:02:03" for six address bytes as they travel (least significant first) into `text`.
void writeBluetoothAddress(const std::uint8_t* littleEndian, std::string& text);

}  // namespace pelm::platform
