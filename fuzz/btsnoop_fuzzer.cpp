// Any bytes after the btsnoop magic: the reader yields advertisements or stops with a RecordingError.
#include "recording_fuzzer.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    pelm::fuzzing::readRecording(std::string("btsnoop\0", 8), data, size);
    return 0;
}
