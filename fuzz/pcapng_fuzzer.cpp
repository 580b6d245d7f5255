// Any bytes after the pcapng magic: the reader yields advertisements or stops with a RecordingError.
#include "recording_fuzzer.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    pelm::fuzzing::readRecording(std::string("\x0A\x0D\x0D\x0A", 4), data, size);
    return 0;
}
