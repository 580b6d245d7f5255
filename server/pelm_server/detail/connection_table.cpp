#include "pelm_server/detail/connection_table.hpp"

#include <algorithm>

#include <boost/asio/post.hpp>

namespace pelm::server::detail {

void ConnectionTable::open(bool accepting) {
    std::lock_guard lock(mutex_);
    accepting_ = accepting;
}

std::optional<ServerMetrics::Refusal> ConnectionTable::admit(const std::shared_ptr<Connection>& connection,
                                                             const std::string& address,
                                                             std::uint64_t order) {
    std::lock_guard lock(mutex_);
    if (!accepting_) return ServerMetrics::Refusal::Stopping;
    const auto fromAddress = byAddress_.count(address) ? byAddress_[address] : 0;
    if (fromAddress >= maxPerAddress_ && !freeSlot(address)) return ServerMetrics::Refusal::AddressFull;
    if (open_.size() - closing_ >= maxConnections_ && !freeSlot({}))
        return ServerMetrics::Refusal::ServerFull;
    ++byAddress_[address];
    open_[connection.get()] = {connection, address, order, false};
    mostOpenSinceTrim_ = std::max(mostOpenSinceTrim_, open_.size());
    return std::nullopt;
}

// Frees one slot (of `address`, or of anyone when empty) by closing the connection that loses least; false
// when every one is busy.
bool ConnectionTable::freeSlot(const std::string& address) {
    Open* victim = nullptr;
    int victimRank = 0;
    for (auto& [key, open] : open_) {
        if (open.closing || (!address.empty() && open.address != address)) continue;
        // The connection is alive while it is listed: it leaves the list before it is destroyed.
        const auto phase = static_cast<const Connection*>(key)->phase();
        const int rank = phase == Connection::Phase::Unproven ? 2 : phase == Connection::Phase::Idle ? 1 : 0;
        if (rank > victimRank || (rank == victimRank && rank > 0 && open.order < victim->order)) {
            victim = &open;
            victimRank = rank;
        }
    }
    if (victim == nullptr) return false;
    auto connection = victim->connection.lock();
    if (!connection) return false;
    victim->closing = true;
    ++closing_;
    if (const auto count = byAddress_.find(victim->address); --count->second == 0) byAddress_.erase(count);
    metrics_.evicted();
    boost::asio::post(connection->executor(), [connection] { connection->close(); });
    return true;
}

void ConnectionTable::ended(const void* connection) {
    std::lock_guard lock(mutex_);
    const auto found = open_.find(connection);
    if (found == open_.end()) return;
    if (found->second.closing) {
        --closing_;
    } else if (const auto address = byAddress_.find(found->second.address);
               address != byAddress_.end() && --address->second == 0) {
        byAddress_.erase(address);
    }
    open_.erase(found);
    if (open_.empty()) emptied_.notify_all();
    // The allocator keeps what closed connections held (their TLS buffers) for the process. After every
    // thousand closed since the last time, and when the last of a hundred or more has closed, that memory is
    // worth giving back.
    constexpr std::size_t kMany = 1000, kSome = 100;
    const auto closed = mostOpenSinceTrim_ - std::min(mostOpenSinceTrim_, open_.size());
    if (closed >= kMany || (open_.empty() && closed >= kSome)) {
        mostOpenSinceTrim_ = open_.size();
        trimDue_ = true;
    }
}

bool ConnectionTable::memoryToReturn() {
    std::lock_guard lock(mutex_);
    return std::exchange(trimDue_, false);
}

std::size_t ConnectionTable::size() const {
    std::lock_guard lock(mutex_);
    return open_.size();
}

std::vector<std::shared_ptr<Connection>> ConnectionTable::all() const {
    std::vector<std::shared_ptr<Connection>> open;
    std::lock_guard lock(mutex_);
    for (const auto& [key, entry] : open_) {
        if (auto alive = entry.connection.lock()) open.push_back(std::move(alive));
    }
    return open;
}

void ConnectionTable::waitUntilEmpty(std::chrono::milliseconds most) {
    std::unique_lock lock(mutex_);
    emptied_.wait_for(lock, most, [this] { return open_.empty(); });
}

}  // namespace pelm::server::detail
