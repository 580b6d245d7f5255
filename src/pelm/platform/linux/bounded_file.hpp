#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>

#include <pelm/model/json_binding.hpp>
#include <pelm/platform/linux/file_calls.hpp>

namespace pelm::platform {

/// What the JSON files we read (settings, scenarios, seeds) may weigh at most. Real ones are a few KiB.
inline constexpr std::size_t kMaxJSONFileBytes = std::size_t{64} << 20;

/// A whole file's bytes, or why there are none.
struct FileContents {
    std::optional<std::string> bytes;
    /// Set when `bytes` is not: "does not exist", "is larger than 64 MiB", "cannot be read: <reason>".
    std::string error;
    bool missing = false;
};

/// Reads a whole file, but never more than `maxBytes`: a larger file, or an endless one (a device, a pipe),
/// is an error, found out after reading `maxBytes` + 1 bytes at most.
FileContents readBoundedFile(const std::filesystem::path& file, std::size_t maxBytes = kMaxJSONFileBytes,
                             const FileCalls& calls = FileCalls::system());

/// A JSON file's value (a scenario, a seed), or why there is none, naming the file: "F does not exist",
/// "F is not valid JSON: line 3, column 7: ...".
struct JSONFile {
    std::optional<JSON> json;
    std::string error;
};
JSONFile readJSONFile(const std::filesystem::path& file);

}  // namespace pelm::platform
