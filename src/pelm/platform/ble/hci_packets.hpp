#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include <pelm/platform/ble/region_engine.hpp>

namespace pelm::platform {

/// The advertisements in one HCI event as it travels from controller to host (event code, parameter length,
/// parameters; no H4 type byte): the reports of an LE Meta event's legacy (0x02) or extended (0x0D)
/// advertising report. Any other event, and a report that does not fit its event, gives nothing.
std::vector<HeardAdvertisement> advertisementsInHciEvent(std::span<const std::uint8_t> event);

/// The advertisement in one LE link-layer packet (access address, PDU header, payload; CRC optional): an
/// ADV_IND, ADV_NONCONN_IND, ADV_SCAN_IND or SCAN_RSP on the advertising access address. `rssi` is what the
/// capture's radio header said. Nothing for any other packet.
std::optional<HeardAdvertisement> advertisementInLinkLayerPacket(std::span<const std::uint8_t> packet,
                                                                 int rssi);

/// "A4:C1:38:01:02:03" for six address bytes as they travel (least significant first).
std::string bluetoothAddressText(const std::uint8_t* littleEndian);

}  // namespace pelm::platform
