#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace pelm::server {

/// One line per request, appended to a file by a thread of its own: the event loop only copies the line
/// into memory and never waits on the disk. Should the disk not keep up, lines past `kMaxPending` bytes are
/// dropped and counted rather than held.
///
///     2026-11-26T07:31:02.114Z 192.0.2.7 GET /api/v1/contents/by_hardware 200 305 0.000412
///
/// time (UTC, milliseconds), client address, method, path (never the query, which carries the app token;
/// bytes outside printable ASCII as %XX), status, body bytes, seconds from the request's last byte to its
/// answer handed over.
class AccessLog {
  public:
    /// Opens `path` for appending (made if missing); throws std::runtime_error naming it when it cannot.
    explicit AccessLog(const std::filesystem::path& path);
    ~AccessLog();
    AccessLog(const AccessLog&) = delete;
    AccessLog& operator=(const AccessLog&) = delete;

    void write(std::string_view address, std::string_view method, std::string_view path, int status,
               std::size_t bytes, std::chrono::steady_clock::duration took);
    /// Lines dropped since the last call.
    std::uint64_t takeDropped();
    /// Waits until every line written so far is in the file.
    void flush();

    static constexpr std::size_t kMaxPending = 8 * 1024 * 1024;

  private:
    void run();

    int fd_ = -1;
    std::mutex mutex_;
    std::condition_variable wake_, written_;
    std::string pending_;
    std::uint64_t appended_ = 0, flushed_ = 0, dropped_ = 0;
    bool stopping_ = false;
    std::thread writer_;
};

}  // namespace pelm::server
