#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

#include "pelm_server/server_names.hpp"

// What a program that runs a server includes, and no more: the event loop, TLS, the database and JSON stay
// behind it (pelm_server/content_store.hpp for store(), pelm_server/request_handler.hpp for a front handler).
namespace pelm::server {

class ContentStore;
class FrontHandler;
namespace detail {
class ServerCore;
}

/// A reference content server: the five endpoints over HTTPS, data in SQLite or PostgreSQL. A few threads run
/// an event loop each that serves the connections it accepted; the store's calls, which may wait on a
/// database, run on threads of their own. GET /metrics tells an operator what it has done.
class PelmServer {
  public:
    struct Options {
        /// A SQLite file (":memory:" by default) or a PostgreSQL URI (see openContentStore).
        std::string database = ":memory:";
        /// How long an app's configuration or a beacon's content is answered from memory once read.
        std::chrono::milliseconds cacheLifetime{5000};
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
        /// Certificate and key; a throwaway pair is made in `certificateFolder` when none is given.
        std::optional<std::string> certFile;
        std::optional<std::string> keyFile;
        std::optional<std::string> certificateFolder;
        /// What the throwaway certificate names besides localhost (LAN host names and addresses).
        ServerNames names;
        /// A file to append one line per request to (see AccessLog); none by default.
        std::optional<std::string> accessLog;
        /// A handler in front of the server's own, which it is given to pass requests on to: a test's, to
        /// record requests or answer in the server's place. Not owned; it outlives the server.
        FrontHandler* front = nullptr;
    };

    /// What one request may carry; more is answered 431 (headers) or 413 (body) before any handler runs.
    static constexpr std::size_t kMaxHeaderCount = 100;
    static constexpr std::size_t kMaxHeaderBytes = 16 * 1024;
    static constexpr std::size_t kMaxBodyBytes = 1024 * 1024;

    /// Opens the database and loads (or makes) the certificate; throws std::runtime_error when either fails.
    explicit PelmServer(Options options);
    ~PelmServer();
    PelmServer(const PelmServer&) = delete;
    PelmServer& operator=(const PelmServer&) = delete;

    ContentStore& store();
    /// Binds and starts serving on threads of its own; throws std::runtime_error when it cannot bind.
    void start();
    /// Stops accepting, answers 503 to every request still waiting on the store, lets the answers in flight
    /// be written for up to a second, closes what is left, and returns once every store call has ended.
    void stop();
    /// The same, but gives up waiting for the store's calls after `most` (a database that does not answer):
    /// false then, and the server must not be destroyed before they end (the destructor waits for them).
    bool stopWithin(std::chrono::milliseconds most);
    int port() const;
    /// "localhost:PORT", the host a client is given.
    std::string host() const { return "localhost:" + std::to_string(port()); }
    /// The authority to trust when the server made its own certificate.
    std::optional<std::string> caFile() const;
    /// Whether that authority was made now, rather than found in its folder from an earlier start.
    bool madeAuthority() const;
    /// What GET /metrics answers, in Prometheus' text format.
    std::string metricsText();

  private:
    // Owned. A plain pointer: <memory> alone would double what including this header costs.
    detail::ServerCore* core_;
};

}  // namespace pelm::server
