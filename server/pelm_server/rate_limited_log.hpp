#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace pelm::server {

/// The server's log, at most one line per cause and interval: an outage fails every request for the same
/// reason, and thousands of equal lines a second would bury the one that says why (and fill the disk). The
/// first line of a cause is written at once; those that follow within the interval are counted, and the
/// count is written with the next line of that cause after it, or by flush().
class RateLimitedLog {
  public:
    using Sink = std::function<void(const std::string& line)>;
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    explicit RateLimitedLog(Sink sink, std::chrono::seconds interval = std::chrono::seconds(10),
                            Clock clock = std::chrono::steady_clock::now);

    /// Writes `line` unless a line of the same `cause` was written less than an interval ago.
    void write(const std::string& cause, const std::string& line);
    /// Writes the counts of the lines held back so far (a server that stops).
    void flush();

  private:
    struct Cause {
        std::chrono::steady_clock::time_point written;
        std::uint64_t heldBack = 0;
    };
    void writeHeldBack(const std::string& cause, Cause& counts);

    Sink sink_;
    std::chrono::seconds interval_;
    Clock clock_;
    std::mutex mutex_;
    std::map<std::string, Cause> causes_;
};

}  // namespace pelm::server
