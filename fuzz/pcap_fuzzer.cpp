// Any bytes after the pcap magic: the reader yields advertisements or stops with a RecordingError.
#include "recording_fuzzer.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    pelm::fuzzing::readRecording(std::string("\xD4\xC3\xB2\xA1", 4), data, size);
    return 0;
}
