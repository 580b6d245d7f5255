#pragma once

// Feeds bytes to the recording readers behind a fixed magic, so each fuzzer stays with its own format.
#include <pelm/platform/ble/recording_reader.hpp>

#include <cstdint>
#include <sstream>
#include <string>

namespace pelm::fuzzing {

inline void readRecording(std::string magic, const std::uint8_t* data, std::size_t size) {
    magic.append(reinterpret_cast<const char*>(data), size);
    try {
        auto reader =
            platform::RecordingReader::open(std::make_unique<std::istringstream>(std::move(magic)), "fuzz");
        std::size_t count = 0;
        while (auto heard = reader->next()) {
            if (heard->data.size() > size)
                __builtin_trap();  // an advertisement is never bigger than its file
            ++count;
        }
        (void)count;
    } catch (const platform::RecordingError&) {
    }
}

}  // namespace pelm::fuzzing
