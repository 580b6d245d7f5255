#include <pelm/platform/linux/bounded_file.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <pelm/model/json_text.hpp>

namespace pelm::platform {
namespace {

std::string sizeText(std::size_t bytes) {
    if (bytes % (std::size_t{1} << 20) == 0) return std::to_string(bytes >> 20) + " MiB";
    if (bytes % 1024 == 0) return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + " bytes";
}

}  // namespace

FileContents readBoundedFile(const std::filesystem::path& file, std::size_t maxBytes,
                             const FileCalls& calls) {
    FileContents result;
    const int fd = calls.open(file.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        result.missing = errno == ENOENT || errno == ENOTDIR;
        result.error =
            result.missing ? "does not exist" : std::string("cannot be read: ") + std::strerror(errno);
        return result;
    }
    std::string bytes;
    char buffer[65536];
    for (;;) {
        const auto n = calls.read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            result.error = std::string("cannot be read: ") + std::strerror(errno);
            break;
        }
        if (n == 0) {
            result.bytes = std::move(bytes);
            break;
        }
        if (bytes.size() + static_cast<std::size_t>(n) > maxBytes) {
            result.error = "is larger than " + sizeText(maxBytes);
            break;
        }
        bytes.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return result;
}

JSONFile readJSONFile(const std::filesystem::path& file) {
    const auto text = readBoundedFile(file);
    if (!text.bytes) return {std::nullopt, file.string() + " " + text.error};
    auto json = parseJSONText(*text.bytes);
    if (json) return {std::move(json), {}};
    return {std::nullopt,
            file.string() + " is not valid JSON: " + jsonTextProblem(*text.bytes).value_or("?")};
}

}  // namespace pelm::platform
