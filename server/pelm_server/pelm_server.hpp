#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <pelm/model/json_binding.hpp>

#include "pelm_server/certificates.hpp"
#include "pelm_server/content_store.hpp"

namespace httplib {
class SSLServer;
}

namespace pelm::server {

/// A reference content server: the five endpoints over HTTPS, data in SQLite.
class PelmServer {
  public:
    struct Options {
        /// SQLite file; ":memory:" by default.
        std::string database = ":memory:";
        /// 0 picks a free port.
        int port = 0;
        std::string bindAddress = "127.0.0.1";
        /// How long an idle keep-alive connection is held open. Each open connection holds a worker thread,
        /// and stopping waits for idle connections this long, so it is short.
        int keepAliveSeconds = 1;
        /// Worker threads: one per open connection, so as many as phones may be connected at once.
        int threads = 256;
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
    void stop();
    int port() const { return port_; }
    /// "localhost:PORT", the host a client is given.
    std::string host() const { return "localhost:" + std::to_string(port_); }
    /// The authority to trust when the server made its own certificate.
    std::optional<std::filesystem::path> caFile() const { return caFile_; }

    void setFault(const std::string& path, Fault fault);
    void clearFaults();
    /// The requests kept (see Options::recordRequests), oldest first.
    std::vector<ReceivedRequest> requests() const;
    /// Distinct client connections seen so far while requests are kept (each has its own source port).
    std::size_t connectionCount() const;

  private:
    void routes();
    void record(const void* request, ReceivedRequest received);
    void recordBody(const void* request, const std::string& body);
    static bool headersWithinLimits(const void* request);

    Options options_;
    std::unique_ptr<ContentStore> store_;
    std::unique_ptr<httplib::SSLServer> http_;
    std::thread thread_;
    int port_ = 0;
    std::optional<std::filesystem::path> caFile_;
    mutable std::mutex mutex_;
    std::map<std::string, Fault> faults_;
    std::deque<ReceivedRequest> requests_;
    std::size_t dropped_ = 0;  // records let go from the front of requests_
    // The body is read after routing starts; a handler finds its request's record by the request's address.
    std::map<const void*, std::size_t> recordOf_;
    std::set<int> connections_;
};

}  // namespace pelm::server
