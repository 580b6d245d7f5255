#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <pelm/model/json_binding.hpp>

#include "pelm_server/api_routes.hpp"
#include "pelm_server/certificates.hpp"
#include "pelm_server/connection.hpp"
#include "pelm_server/content_store.hpp"
#include "pelm_server/rate_limited_log.hpp"

namespace pelm::server {

/// A reference content server: the five endpoints over HTTPS, data in SQLite or PostgreSQL. A few threads run
/// an event loop that serves every connection; the store's calls, which may wait on a database, run on
/// threads of their own.
class PelmServer : private ConnectionOwner {
  public:
    struct Options {
        /// A SQLite file (":memory:" by default) or a PostgreSQL URI (see openContentStore).
        std::string database = ":memory:";
        /// How long an app's configuration or a beacon's content is answered from memory once read.
        std::chrono::milliseconds cacheLifetime = ContentStore::kDefaultCacheLifetime;
        /// 0 picks a free port.
        int port = 0;
        std::string bindAddress = "127.0.0.1";
        /// How long a kept-alive connection may wait for its next request.
        int keepAliveSeconds = 30;
        /// From a request's first byte (or the TLS handshake) to the end of its head.
        std::chrono::milliseconds headDeadline{10000};
        /// Event-loop threads; 0 runs one per core.
        int threads = 0;
        /// Threads for the store's calls: each may wait on the database.
        int storeThreads = 8;
        /// A request that waits on the store is answered 503 (Retry-After) when the store has not answered it
        /// within this time: a database that does not answer costs a phone this long, not its timeout.
        std::chrono::milliseconds storeDeadline{10000};
        /// Requests waiting on the store at once; more are answered 503 at once instead of queueing.
        std::size_t maxStoreQueue = 4096;
        /// Connections open at once. At the limit a new connection takes the slot of the oldest one that has
        /// not yet sent a complete request head, or else of the oldest waiting between requests; with none
        /// such, it is closed as soon as it is accepted.
        std::size_t maxConnections = 10000;
        /// Connections open at once from one client address, by the same rule: one client cannot hold the
        /// slots every other phone needs. Generous, since a store's phones may share one address.
        std::size_t maxConnectionsPerAddress = 1000;
        /// Keep what arrived, for tests: the last `recordRequests` requests (and their connections).
        std::size_t recordRequests = 0;
        /// Certificate and key; a throwaway pair is made in `certificateFolder` when none is given.
        std::optional<std::filesystem::path> certFile;
        std::optional<std::filesystem::path> keyFile;
        std::optional<std::filesystem::path> certificateFolder;
        /// What the throwaway certificate names besides localhost (LAN host names and addresses).
        ServerNames names;
    };

    /// What a test can make the server do for one path instead of answering properly.
    struct Fault {
        std::optional<int> status;
        std::chrono::milliseconds delay{0};
        std::optional<std::string> body;      // replaces the reply body ("" for an empty one)
        bool dropConnection = false;          // send the headers, then close without the promised body
        std::optional<std::string> location;  // a Location header, for redirects
    };

    /// What one request may carry; more is answered 431 (headers) or 413 (body) before any handler runs.
    static constexpr std::size_t kMaxHeaderCount = 100;
    static constexpr std::size_t kMaxHeaderBytes = 16 * 1024;
    static constexpr std::size_t kMaxBodyBytes = 1024 * 1024;

    /// One request as it arrived.
    struct ReceivedRequest {
        std::string method;
        std::string path;
        std::string target;  // path and raw query, as sent
        std::string contentType;
        std::string expect;
        std::string body;
        int remotePort = 0;
    };

    explicit PelmServer(Options options);
    ~PelmServer();
    PelmServer(const PelmServer&) = delete;
    PelmServer& operator=(const PelmServer&) = delete;

    ContentStore& store() { return *store_; }
    /// Binds and starts serving on a thread of its own; throws std::runtime_error when it cannot bind.
    void start();
    /// Stops accepting, answers 503 to every request still waiting on the store, lets the answers in flight
    /// be written for up to a second, closes what is left, and returns once every store call has ended.
    void stop();
    /// The same, but gives up waiting for the store's calls after `most` (a database that does not answer):
    /// false then, and the server must not be destroyed before they end (the destructor waits for them).
    bool stopWithin(std::chrono::milliseconds most);
    int port() const { return port_; }
    /// "localhost:PORT", the host a client is given.
    std::string host() const { return "localhost:" + std::to_string(port_); }
    /// The authority to trust when the server made its own certificate.
    std::optional<std::filesystem::path> caFile() const { return caFile_; }
    /// Whether that authority was made now, rather than found in its folder from an earlier start.
    bool madeAuthority() const { return madeAuthority_; }

    void setFault(const std::string& path, Fault fault);
    void clearFaults();
    /// The requests kept (see Options::recordRequests), oldest first.
    std::vector<ReceivedRequest> requests() const;
    /// Distinct client connections seen so far while requests are kept (each has its own source port).
    std::size_t connectionCount() const;

  private:
    struct Loop;
    class PendingAnswer;
    enum class State { Made, Running, Stopping, Stopped };

    const ConnectionLimits& limits() const override { return limits_; }
    void handle(Request request, int remotePort, std::function<void(Reply)> done) override;
    Reply refusal(int status) override;
    void ended(const void* connection) override;

    struct OpenConnection {
        std::weak_ptr<Connection> connection;
        std::string address;
        std::uint64_t order = 0;  // of acceptance
        bool closing = false;     // chosen to free a slot; it ends soon
    };

    void accept();
    void onAccepted(boost::asio::ip::tcp::socket socket);
    /// Frees one slot (of `address`, or of anyone when empty) by closing the connection that loses least;
    /// false when every one is busy. Under connectionsMutex_.
    bool freeSlot(const std::string& address);
    void returnMemoryOfClosedConnections();
    void record(const Request& request, int remotePort);
    std::optional<Fault> faultFor(const std::string& path) const;
    void closeConnections(bool gracefully);
    void askStore(Request request, std::shared_ptr<PendingAnswer> pending, std::chrono::milliseconds delay);
    void storeCallEnded(const std::shared_ptr<PendingAnswer>& pending);
    bool beginStop();
    bool waitForStoreCalls(std::chrono::milliseconds most);
    void finishStop();

    Options options_;
    RateLimitedLog log_;
    ConnectionLimits limits_;
    std::unique_ptr<ContentStore> store_;
    ApiRoutes routes_;
    std::unique_ptr<Loop> loop_;
    int port_ = 0;
    std::optional<std::filesystem::path> caFile_;
    bool madeAuthority_ = false;
    std::filesystem::path certFile_, keyFile_;

    // The open connections, by address; a connection tells when it ends.
    std::mutex connectionsMutex_;
    std::condition_variable connectionEnded_;
    std::map<const void*, OpenConnection> open_;
    std::map<std::string, std::size_t> openByAddress_;
    std::size_t closing_ = 0;
    std::uint64_t accepted_ = 0;
    std::size_t mostOpenSinceTrim_ = 0;
    bool accepting_ = false;
    State state_ = State::Made;

    // The requests handed to the store's threads and not yet ended there.
    std::mutex storeMutex_;
    std::condition_variable storeCallEnded_;
    std::set<std::shared_ptr<PendingAnswer>> waitingOnStore_;

    mutable std::mutex mutex_;
    std::map<std::string, Fault> faults_;
    std::deque<ReceivedRequest> requests_;
    std::set<int> connections_;
};

}  // namespace pelm::server
