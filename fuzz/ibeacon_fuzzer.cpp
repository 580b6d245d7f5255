// Any advertising bytes: the iBeacon parser finds a frame or none, and a frame it finds is really there.
#include <pelm/platform/ble/ibeacon_advertisement.hpp>

#include <cstdint>
#include <cstdlib>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    const auto frame = pelm::platform::parseIBeacon(bytes);
    if (!frame) return 0;
    // The frame's UUID must stand in the input right after a 4C 00 02 15 header.
    bool found = false;
    for (std::size_t at = 0; at + 20 <= size && !found; ++at) {
        found =
            data[at] == 0x4C && data[at + 1] == 0x00 && data[at + 2] == 0x02 && data[at + 3] == 0x15 &&
            std::equal(frame->proximityUUID.bytes.begin(), frame->proximityUUID.bytes.end(), data + at + 4);
    }
    if (!found) std::abort();
    return 0;
}
