#pragma once

#include <concepts>
#include <optional>
#include <string>
#include <string_view>

namespace pelm {

/// The library's diagnostics, written to the platform's system log as one line each:
/// "[PELM][ERROR] message", or "[PELM][ERROR] message with error description".
/// The message is passed as a callable so that it costs nothing when no line is written.
class Log {
  public:
    enum class Level { Debug, Error };

    /// "[DEBUG]" or "[ERROR]".
    static std::string_view rawValue(Level level);
    /// The level with exactly this raw text, if any.
    static std::optional<Level> levelFromRawValue(std::string_view raw);

    /// Writes one error line; `message` is called exactly once.
    template <std::invocable Message>
    static void error(Message&& message, std::optional<std::string_view> error = std::nullopt) {
        write(Level::Error, std::string(std::forward<Message>(message)()), error);
    }
    static void error(std::string_view message, std::optional<std::string_view> error = std::nullopt) {
        write(Level::Error, std::string(message), error);
    }

    /// Writes nothing and never calls `message`.
    template <class Message>
    static void debug(Message&& /*message*/, std::optional<std::string_view> /*error*/ = std::nullopt) {}

    /// The line as the system log receives it, before the log's own prefix.
    static std::string format(Level level, std::string_view message, std::optional<std::string_view> error);

  private:
    static void write(Level level, const std::string& message, std::optional<std::string_view> error);
};

}  // namespace pelm
