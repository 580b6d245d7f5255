#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace pelm::server {

/// What the server counts for its operator, rendered in Prometheus' text format at GET /metrics. Every
/// count is a relaxed atomic, bumped on the event loop without a lock; a scrape reads them as they are.
class ServerMetrics {
  public:
    /// The API's endpoints, and what is none of them.
    enum class Route { Status, AppConfig, Content, ContentsByHardware, Sessions, Metrics, Other };
    static constexpr std::size_t kRoutes = 7;
    static Route routeOf(std::string_view method, std::string_view path);

    /// Why a connection was closed as soon as it was accepted.
    enum class Refusal { ServerFull, AddressFull, Stopping };
    static constexpr std::size_t kRefusals = 3;

    /// One request answered: its status and the time from its last byte read to its answer handed over.
    void answered(Route route, int status, std::chrono::steady_clock::duration took);
    void refused(Refusal cause) { refusals_[static_cast<std::size_t>(cause)].fetch_add(1, kRelaxed); }
    /// A connection that had to give its slot to a newcomer (it had sent nothing, or waited between
    /// requests).
    void evicted() { evicted_.fetch_add(1, kRelaxed); }
    /// A lookup answered from memory, or handed to the store's threads.
    void cacheHit() { cacheHits_.fetch_add(1, kRelaxed); }
    void cacheMiss() { cacheMisses_.fetch_add(1, kRelaxed); }
    void accessLogDropped(std::uint64_t lines) { accessLogDropped_.fetch_add(lines, kRelaxed); }

    /// What is read at a scrape from elsewhere.
    struct Gauges {
        std::size_t openConnections = 0;
        std::size_t waitingOnStore = 0;
        const char* backend = "";
        std::uint64_t storeCalls = 0, storeErrors = 0;
        bool accessLog = false;
    };
    std::string text(const Gauges& gauges) const;

    /// Upper bounds of the latency histogram's buckets, in seconds.
    static constexpr std::array<double, 14> kBuckets = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                        0.1,    0.25,  0.5,    1,     2.5,  5,     10};
    /// The statuses counted one by one; any other is counted as "other".
    static constexpr std::array<int, 16> kStatuses = {200, 201, 301, 302, 307, 400, 401, 404,
                                                      405, 408, 413, 415, 422, 431, 500, 503};

  private:
    static constexpr auto kRelaxed = std::memory_order_relaxed;
    using Counter = std::atomic<std::uint64_t>;
    struct Latency {
        std::array<Counter, kBuckets.size() + 1> buckets{};  // the last: above every bound
        Counter count{0};
        Counter microseconds{0};
    };

    std::array<std::array<Counter, kStatuses.size() + 1>, kRoutes> requests_{};
    std::array<Latency, kRoutes> latency_{};
    std::array<Counter, kRefusals> refusals_{};
    Counter evicted_{0}, cacheHits_{0}, cacheMisses_{0}, accessLogDropped_{0};
    Counter uploadsStored_{0};
    std::array<Counter, 5> uploadsRefused_{};  // by reason: see ServerMetrics::text
};

}  // namespace pelm::server
