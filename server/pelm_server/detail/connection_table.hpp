#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "pelm_server/detail/connection.hpp"
#include "pelm_server/server_metrics.hpp"

namespace pelm::server::detail {

/// The open connections, by client address, and the limits on them. At a limit a new connection takes the
/// slot of one that has cost its client nothing yet: a client that opens thousands of connections and sends
/// nothing (or waits between requests) then loses its own oldest ones, not the phones their slots. With
/// every slot busy, the new one is refused: the phone learns at once, and those connected keep being served.
class ConnectionTable {
  public:
    ConnectionTable(std::size_t maxConnections, std::size_t maxPerAddress, ServerMetrics& metrics)
        : maxConnections_(maxConnections), maxPerAddress_(maxPerAddress), metrics_(metrics) {}

    /// Lets new connections in, or (when stopping) no more.
    void open(bool accepting);
    /// Lists `connection`, the `order`th accepted, when it may stay; why not otherwise.
    std::optional<ServerMetrics::Refusal> admit(const std::shared_ptr<Connection>& connection,
                                                const std::string& address, std::uint64_t order);
    /// A connection has ended; true once none is open.
    void ended(const void* connection);
    std::size_t size() const;
    /// Every connection still open, to be told to stop.
    std::vector<std::shared_ptr<Connection>> all() const;
    /// Waits until none is open, for at most `most`.
    void waitUntilEmpty(std::chrono::milliseconds most);
    /// Whether the memory of closed connections is worth giving back to the system now; see the .cpp.
    bool memoryToReturn();

  private:
    struct Open {
        std::weak_ptr<Connection> connection;
        std::string address;
        std::uint64_t order = 0;  // of acceptance
        bool closing = false;     // chosen to free a slot; it ends soon
    };
    bool freeSlot(const std::string& address);

    const std::size_t maxConnections_, maxPerAddress_;
    ServerMetrics& metrics_;
    mutable std::mutex mutex_;
    std::condition_variable emptied_;
    std::map<const void*, Open> open_;
    std::map<std::string, std::size_t> byAddress_;
    std::size_t closing_ = 0;
    std::size_t mostOpenSinceTrim_ = 0;
    bool accepting_ = false;
    bool trimDue_ = false;
};

}  // namespace pelm::server::detail
