// Any bytes after the trace magic: the reader yields advertisements or stops with a RecordingError.
#include "recording_fuzzer.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    pelm::fuzzing::readRecording(std::string("{"), data, size);
    return 0;
}
