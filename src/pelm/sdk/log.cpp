#include <pelm/sdk/log.hpp>

#include <pelm/platform/platform.hpp>

namespace pelm {
namespace {

constexpr std::string_view kTag = "[PELM]";

}  // namespace

std::string_view Log::rawValue(Level level) {
    return level == Level::Debug ? "[DEBUG]" : "[ERROR]";
}

std::optional<Log::Level> Log::levelFromRawValue(std::string_view raw) {
    if (raw == "[DEBUG]") return Level::Debug;
    if (raw == "[ERROR]") return Level::Error;
    return std::nullopt;
}

std::string Log::format(Level level, std::string_view message, std::optional<std::string_view> error) {
    std::string line;
    line.reserve(kTag.size() + 8 + message.size() + (error ? error->size() + 12 : 0));
    line += kTag;
    line += rawValue(level);
    line += ' ';
    line += message;
    if (error) {
        line += " with error ";
        line += *error;
    }
    return line;
}

void Log::write(Level level, const std::string& message, std::optional<std::string_view> error) {
    platform::current()->log->write(format(level, message, error));
}

}  // namespace pelm
