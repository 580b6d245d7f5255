// Any bytes as a settings file: reading gives texts or nothing and never throws; a write afterwards
// succeeds and reads back.
#include <pelm/platform/linux/file_key_value_store.hpp>

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "fuzz_platform.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    pelm::fuzzing::installPlatform();
    static const auto folder =
        std::filesystem::temp_directory_path() / ("pelm-settings-fuzz-" + std::to_string(::getpid()));
    static const bool made = std::filesystem::create_directories(folder);
    (void)made;
    const auto file = folder / "app.json";
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    pelm::platform::FileKeyValueStore store(file);
    (void)store.get("pelm.apptoken");
    (void)store.entries();
    // Writing is slow (it syncs); do it for a small share of the inputs.
    if (size % 16 == 0) {
        store.set("pelm.uuid", "u");
        if (store.get("pelm.uuid") != "u") std::abort();
    }
    return 0;
}
