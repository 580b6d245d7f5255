#pragma once

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include "pelm_server/access_log.hpp"
#include "pelm_server/api_routes.hpp"
#include "pelm_server/content_store.hpp"
#include "pelm_server/detail/connection.hpp"
#include "pelm_server/detail/connection_table.hpp"
#include "pelm_server/pelm_server.hpp"
#include "pelm_server/rate_limited_log.hpp"
#include "pelm_server/request_handler.hpp"
#include "pelm_server/server_metrics.hpp"

namespace pelm::server::detail {

class PendingAnswer;

/// What PelmServer is made of. Each event-loop thread runs a loop of its own with its own acceptor on the
/// one listening socket: a connection lives on the thread that accepted it, and no lock or strand stands
/// between its reads and writes. Requests that must wait on the database go to the store's threads.
class ServerCore : private ConnectionOwner {
  public:
    explicit ServerCore(PelmServer::Options options);
    ~ServerCore() override;
    ServerCore(const ServerCore&) = delete;
    ServerCore& operator=(const ServerCore&) = delete;

    ContentStore& store() { return *store_; }
    void start();
    bool stopWithin(std::chrono::milliseconds most);
    int port() const { return port_; }
    std::optional<std::filesystem::path> caFile() const { return caFile_; }
    bool madeAuthority() const { return madeAuthority_; }
    std::string metricsText();

  private:
    struct Loop {
        boost::asio::io_context io{1};
        boost::asio::ip::tcp::acceptor acceptor{io};  // the first loop's listens
        boost::asio::steady_timer acceptRetry{io};
        std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work;
        std::thread thread;
    };
    enum class State { Made, Running, Stopping, Stopped };

    // ConnectionOwner
    const ConnectionLimits& limits() const override { return limits_; }
    void handle(HttpRequest& request, Responder respond) override;
    Reply refusal(int status) override;
    void answered(const Exchange& exchange) override;
    void ended(const void* connection) override;
    // The server's own answers, behind whatever a test put in front.
    struct Own final : RequestHandler {
        explicit Own(ServerCore& core) : core(core) {}
        void handle(HttpRequest& request, Responder respond) override {
            core.answer(request, std::move(respond));
        }
        ServerCore& core;
    };
    void answer(HttpRequest& request, Responder respond);

    void loadCertificate();
    void listen();
    void accept();
    void onAccepted(boost::asio::ip::tcp::socket socket, Loop& loop, std::uint64_t order);
    void askStore(HttpRequest& request, Responder respond);
    void storeCallEnded(const std::shared_ptr<PendingAnswer>& pending);
    Loop& currentLoop();
    bool beginStop();
    bool waitForStoreCalls(std::chrono::milliseconds most);
    void finishStop();

    PelmServer::Options options_;
    RateLimitedLog log_;
    ConnectionLimits limits_;
    ServerMetrics metrics_;
    std::unique_ptr<ContentStore> store_;
    ApiRoutes routes_;
    std::unique_ptr<AccessLog> accessLog_;
    Own own_{*this};
    RequestHandler* handler_ = &own_;  // or a test's, in front of it
    ConnectionTable table_;
    boost::asio::ssl::context tls_{boost::asio::ssl::context::tls_server};
    std::vector<std::unique_ptr<Loop>> loops_;
    // On the first loop only: the loop the next connection goes to, and how many were accepted.
    std::size_t nextLoop_ = 0;
    std::uint64_t accepted_ = 0;
    std::unique_ptr<boost::asio::thread_pool> storePool_;
    int port_ = 0;
    std::optional<std::filesystem::path> caFile_;
    bool madeAuthority_ = false;

    std::mutex stateMutex_;
    State state_ = State::Made;

    // The requests handed to the store's threads and not yet ended there.
    std::mutex storeMutex_;
    std::condition_variable storeCallEnded_;
    std::set<std::shared_ptr<PendingAnswer>> waitingOnStore_;
};

}  // namespace pelm::server::detail
