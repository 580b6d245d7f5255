#include "pelm_server/detail/server_core.hpp"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include <boost/asio/post.hpp>

#include "pelm_server/certificates.hpp"
#include "pelm_server/store_factory.hpp"

namespace pelm::server::detail {
namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;

thread_local void* loopOfThisThread = nullptr;

std::filesystem::path defaultCertificateFolder() {
    return std::filesystem::temp_directory_path() / ("pelm-server-" + std::to_string(::getpid()));
}

// Each connection takes a descriptor; a soft limit of 1024 would refuse phones long before the server's own
// limit does.
void allowDescriptorsFor(std::size_t connections) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    const rlim_t wanted = static_cast<rlim_t>(connections) + 256;
    if (limit.rlim_cur >= wanted) return;
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? wanted : std::min(wanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

void writeToStandardError(const std::string& line) {
    std::fprintf(stderr, "pelm-server: %s\n", line.c_str());
}

}  // namespace

// The answer to one request handed to the store's threads. Whoever answers first is heard: the store, the
// deadline, or a server that stops; the others find it answered.
class PendingAnswer {
  public:
    PendingAnswer(Responder respond, net::io_context::executor_type executor)
        : respond_(std::move(respond)), deadline_(executor) {}

    /// True when this call answered.
    bool answer(Reply reply) {
        std::unique_lock lock(mutex_);
        if (respond_.answered()) return false;
        auto respond = std::move(respond_);  // leaves respond_ answered
        lock.unlock();
        respond(std::move(reply));
        return true;
    }
    bool answered() const {
        std::lock_guard lock(mutex_);
        return respond_.answered();
    }
    /// Answers 503 when nothing else has by `within`.
    void answerUnavailableAfter(std::chrono::milliseconds within, std::shared_ptr<PendingAnswer> self) {
        deadline_.expires_after(within);
        deadline_.async_wait([self = std::move(self)](boost::system::error_code error) {
            if (error) return;
            self->answer(
                ApiRoutes::unavailable("The database did not answer in time; send the request again later"));
        });
    }
    void cancelDeadline(std::shared_ptr<PendingAnswer> self) {
        net::post(deadline_.get_executor(), [self = std::move(self)] { self->deadline_.cancel(); });
    }

  private:
    mutable std::mutex mutex_;
    Responder respond_;
    net::steady_timer deadline_;
};

ServerCore::ServerCore(PelmServer::Options options)
    : options_(std::move(options)),
      log_(&writeToStandardError),
      store_(
          openContentStore(options_.database, ContentStore::Open::CreateIfMissing, options_.cacheLifetime)),
      routes_(
          *store_, [this](const std::string& cause, const std::string& line) { log_.write(cause, line); },
          options_.cacheLifetime),
      table_(options_.maxConnections, options_.maxConnectionsPerAddress, metrics_) {
    limits_.maxHeaderBytes = PelmServer::kMaxHeaderBytes;
    limits_.maxHeaderCount = PelmServer::kMaxHeaderCount;
    limits_.maxBodyBytes = PelmServer::kMaxBodyBytes;
    limits_.keepAlive = std::chrono::seconds(std::max(1, options_.keepAliveSeconds));
    limits_.headDeadline = options_.headDeadline;
    loadCertificate();
    if (options_.accessLog) accessLog_ = std::make_unique<AccessLog>(*options_.accessLog);
    if (options_.front) {
        options_.front->passTo(own_);
        handler_ = options_.front;
    }
}

ServerCore::~ServerCore() {
    if (beginStop()) {
        waitForStoreCalls(std::chrono::milliseconds::max());
        finishStop();
    }
}

void ServerCore::loadCertificate() {
    std::filesystem::path certFile, keyFile;
    if (options_.certFile && options_.keyFile) {
        certFile = *options_.certFile;
        keyFile = *options_.keyFile;
    } else {
        const auto made = folderCertificate(options_.certificateFolder.value_or(defaultCertificateFolder()),
                                            365, options_.names);
        certFile = made.certFile;
        keyFile = made.keyFile;
        caFile_ = made.caFile;
        madeAuthority_ = made.madeAuthority;
    }
    tls_.set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                     net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 |
                     net::ssl::context::no_tlsv1_1);
    // TLS 1.2 with forward secrecy and authenticated encryption only (the CBC suites are open to padding
    // oracles such as Lucky13), in the server's order; TLS 1.3's suites are all of that kind.
    SSL_CTX_set_options(tls_.native_handle(), SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_cipher_list(tls_.native_handle(),
                            "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
                            "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-AES128-GCM-SHA256:"
                            "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-RSA-CHACHA20-POLY1305");
    // An idle connection then holds no read or write buffer: thousands of phones cost little between
    // requests.
    SSL_CTX_set_mode(tls_.native_handle(), SSL_MODE_RELEASE_BUFFERS);
    boost::system::error_code error;
    tls_.use_certificate_chain_file(certFile.string(), error);
    if (!error) tls_.use_private_key_file(keyFile.string(), net::ssl::context::pem, error);
    if (error) throw std::runtime_error("cannot load the certificate " + certFile.string());
}

void ServerCore::start() {
    const auto threads = options_.threads > 0
                             ? options_.threads
                             : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    for (int i = 0; i < threads; ++i) loops_.push_back(std::make_unique<Loop>());
    storePool_ =
        std::make_unique<net::thread_pool>(static_cast<std::size_t>(std::max(1, options_.storeThreads)));
    listen();
    allowDescriptorsFor(options_.maxConnections);
    {
        std::lock_guard lock(stateMutex_);
        state_ = State::Running;
    }
    table_.open(true);
    net::post(loops_.front()->io, [this] { accept(); });
    for (auto& loop : loops_) {
        auto* current = loop.get();
        loop->work.emplace(loop->io.get_executor());
        loop->thread = std::thread([current] {
            loopOfThisThread = current;
            current->io.run();
        });
    }
}

// One listening socket, on the first loop; each connection it takes is handed to the loops in turn, so that
// a crowd connecting at once is shared out instead of landing on whichever loop woke first.
void ServerCore::listen() {
    const auto where = [&] { return options_.bindAddress + ":" + std::to_string(options_.port); };
    boost::system::error_code error;
    const auto address = net::ip::make_address(options_.bindAddress, error);
    if (error) throw std::runtime_error("cannot listen on " + where() + ": not an IP address");
    const tcp::endpoint endpoint(address, static_cast<unsigned short>(options_.port));
    auto& acceptor = loops_.front()->acceptor;
    acceptor.open(endpoint.protocol(), error);
    // SO_REUSEADDR only: a restart may take over a port still in TIME_WAIT, but a second server on a port in
    // use fails instead of sharing it.
    if (!error) acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error) acceptor.bind(endpoint, error);
    if (!error) acceptor.listen(net::socket_base::max_listen_connections, error);
    if (error) {
        throw std::runtime_error(
            "cannot listen on " + where() +
            (error == net::error::address_in_use ? ": the port is in use" : ": " + error.message()));
    }
    port_ = acceptor.local_endpoint().port();
}

void ServerCore::accept() {
    auto& listening = *loops_.front();
    auto& target = *loops_[nextLoop_++ % loops_.size()];
    listening.acceptor.async_accept(
        target.io, [this, &listening, &target](boost::system::error_code error, tcp::socket socket) {
            if (error == net::error::operation_aborted || !listening.acceptor.is_open()) return;
            if (error) {
                // Out of descriptors or memory for a moment: accepting again at once would only spin.
                listening.acceptRetry.expires_after(std::chrono::milliseconds(100));
                listening.acceptRetry.async_wait([this](boost::system::error_code waited) {
                    if (!waited) accept();
                });
                return;
            }
            // Numbered here, in the order of acceptance: each loop admits its own in its own time.
            net::post(target.io, [this, &target, order = accepted_++, socket = std::move(socket)]() mutable {
                onAccepted(std::move(socket), target, order);
            });
            accept();
        });
}

void ServerCore::onAccepted(tcp::socket socket, Loop& loop, std::uint64_t order) {
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    auto address = socket.remote_endpoint(ignored).address().to_string(ignored);
    ConnectionOwner& owner = *this;
    auto connection = std::make_shared<Connection>(std::move(socket), loop.io.get_executor(), tls_, owner);
    if (const auto refused = table_.admit(connection, address, order)) {
        metrics_.refused(*refused);
        return connection->close();
    }
    connection->start();
}

void ServerCore::ended(const void* connection) {
    table_.ended(connection);
    if (table_.memoryToReturn() && storePool_) net::post(*storePool_, [] { malloc_trim(0); });
}

void ServerCore::handle(HttpRequest& request, Responder respond) {
    handler_->handle(request, std::move(respond));
}

// A repeated lookup is answered here, on the event loop, from the answer kept whole; the metrics too. All
// else goes to the store's threads.
void ServerCore::answer(HttpRequest& request, Responder respond) {
    if (request.method == "GET" && request.path() == "/metrics") {
        Reply reply;
        reply.body = sharedText(metricsText());
        reply.contentType = "text/plain; version=0.0.4; charset=utf-8";
        return respond(std::move(reply));
    }
    if (auto kept = routes_.answerFromMemory(request.method, request.target)) {
        metrics_.cacheHit();
        return respond(std::move(*kept));
    }
    metrics_.cacheMiss();
    askStore(request, std::move(respond));
}

ServerCore::Loop& ServerCore::currentLoop() {
    if (loopOfThisThread) {
        for (auto& loop : loops_) {
            if (loop.get() == loopOfThisThread) return *loop;
        }
    }
    return *loops_.front();
}

// The store's threads may all be waiting on a database that does not answer: the request is answered 503 at
// its deadline whatever they do, and one still queued then is not asked of the store at all.
void ServerCore::askStore(HttpRequest& request, Responder respond) {
    auto pending = std::make_shared<PendingAnswer>(std::move(respond), currentLoop().io.get_executor());
    {
        std::lock_guard lock(storeMutex_);
        if (waitingOnStore_.size() >= options_.maxStoreQueue) {
            pending->answer(ApiRoutes::unavailable("The server is busy; send the request again later"));
            return;
        }
        waitingOnStore_.insert(pending);
    }
    pending->answerUnavailableAfter(options_.storeDeadline, pending);
    net::post(*storePool_, [this, method = std::string(request.method), target = std::string(request.target),
                            body = std::move(request.body), pending = std::move(pending)] {
        if (!pending->answered()) pending->answer(routes_.answer(method, target, body));
        storeCallEnded(pending);
    });
}

void ServerCore::storeCallEnded(const std::shared_ptr<PendingAnswer>& pending) {
    pending->cancelDeadline(pending);
    std::lock_guard lock(storeMutex_);
    waitingOnStore_.erase(pending);
    if (waitingOnStore_.empty()) storeCallEnded_.notify_all();
}

Reply ServerCore::refusal(int status) {
    switch (status) {
        case 413:
            return ApiRoutes::error(413, "The request body is larger than the limit of 1 MiB (" +
                                             std::to_string(PelmServer::kMaxBodyBytes) + " bytes)");
        case 415:
            return ApiRoutes::error(415, "The body must be sent as it is: no Content-Encoding is taken");
        case 431:
            return ApiRoutes::error(431, "Request header fields too large");
        default:
            return ApiRoutes::error(status, "The request could not be read");
    }
}

void ServerCore::answered(const Exchange& exchange) {
    metrics_.answered(ServerMetrics::routeOf(exchange.method, exchange.path), exchange.status, exchange.took);
    if (accessLog_)
        accessLog_->write(exchange.address, exchange.method, exchange.path, exchange.status, exchange.bytes,
                          exchange.took);
}

std::string ServerCore::metricsText() {
    ServerMetrics::Gauges gauges;
    gauges.openConnections = table_.size();
    {
        std::lock_guard lock(storeMutex_);
        gauges.waitingOnStore = waitingOnStore_.size();
    }
    gauges.backend = store_->backend();
    const auto calls = store_->calls();
    gauges.storeCalls = calls.made;
    gauges.storeErrors = calls.failed;
    gauges.accessLog = accessLog_ != nullptr;
    if (accessLog_) metrics_.accessLogDropped(accessLog_->takeDropped());
    return metrics_.text(gauges);
}

bool ServerCore::stopWithin(std::chrono::milliseconds most) {
    if (!beginStop()) return true;
    if (!waitForStoreCalls(most)) return false;
    finishStop();
    return true;
}

// Stops accepting, answers what waits on the store, lets the requests in flight be answered for up to a
// second and closes whatever is left. False when there is nothing to stop: never started, or stopped. A
// stop that gave up on the store's calls is under way still: true, with nothing more to do here.
bool ServerCore::beginStop() {
    {
        std::lock_guard lock(stateMutex_);
        if (state_ == State::Stopping) return true;
        if (state_ != State::Running) return false;
        state_ = State::Stopping;
    }
    table_.open(false);
    for (auto& loop : loops_) {
        net::post(loop->io, [current = loop.get()] {
            boost::system::error_code ignored;
            current->acceptor.close(ignored);
            current->acceptRetry.cancel();
        });
    }
    std::set<std::shared_ptr<PendingAnswer>> waiting;
    {
        std::lock_guard lock(storeMutex_);
        waiting = waitingOnStore_;
    }
    for (const auto& pending : waiting)
        pending->answer(ApiRoutes::unavailable("The server is stopping; send the request again later"));
    const auto closeAll = [this](bool gracefully) {
        for (auto& connection : table_.all()) {
            net::post(connection->executor(), [connection, gracefully] {
                if (gracefully) {
                    connection->stopGracefully();
                } else {
                    connection->close();
                }
            });
        }
    };
    closeAll(true);
    table_.waitUntilEmpty(std::chrono::seconds(1));
    closeAll(false);
    table_.waitUntilEmpty(std::chrono::milliseconds(200));
    return true;
}

bool ServerCore::waitForStoreCalls(std::chrono::milliseconds most) {
    std::unique_lock lock(storeMutex_);
    const auto ended = [this] { return waitingOnStore_.empty(); };
    if (most == std::chrono::milliseconds::max()) {
        storeCallEnded_.wait(lock, ended);
        return true;
    }
    return storeCallEnded_.wait_for(lock, most, ended);
}

void ServerCore::finishStop() {
    {
        std::lock_guard lock(stateMutex_);
        if (state_ == State::Stopped) return;  // another stop has finished it
        state_ = State::Stopped;
    }
    storePool_->join();
    for (auto& loop : loops_) {
        loop->work.reset();
        loop->io.stop();
    }
    for (auto& loop : loops_) loop->thread.join();
    loops_.clear();  // and with them every connection still waiting on a loop
    log_.flush();
    if (accessLog_) accessLog_->flush();
}

}  // namespace pelm::server::detail
