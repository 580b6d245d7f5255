#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>

#include <pelm/platform/http_transport.hpp>
#include <pelm/platform/main_queue.hpp>

namespace pelm::platform {

struct CurlTransportOptions {
    /// Certificates trusted besides the system's (how a test trusts its throwaway certificate).
    /// Verification of the peer and its host name is always on.
    std::optional<std::filesystem::path> extraCABundle;
    std::chrono::milliseconds connectTimeout{std::chrono::seconds{10}};
    std::chrono::milliseconds timeout{std::chrono::seconds{30}};
    /// Replies with a larger body fail.
    std::size_t maxBodyBytes = std::size_t{1} << 20;
    /// Redirects are followed only over HTTPS to the same host and port, at most this many times.
    int maxRedirects = 3;
};

/// HTTPS over libcurl on one worker thread. Connections are kept and reused across calls; calls run
/// concurrently; every result is posted to the main queue.
class CurlTransport final : public HttpTransport {
  public:
    CurlTransport(std::shared_ptr<MainQueue> mainQueue, CurlTransportOptions options = {});
    /// Ends every call still in flight with an error, then stops the worker.
    ~CurlTransport() override;
    CurlTransport(const CurlTransport&) = delete;
    CurlTransport& operator=(const CurlTransport&) = delete;

    void send(HttpRequest request, std::function<void(HttpReply)> completion) override;

  private:
    class Worker;
    std::unique_ptr<Worker> worker_;
};

}  // namespace pelm::platform
