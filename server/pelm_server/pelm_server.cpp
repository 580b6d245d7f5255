#include "pelm_server/pelm_server.hpp"

#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <thread>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>

namespace pelm::server {
namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;

std::filesystem::path defaultCertificateFolder() {
    return std::filesystem::temp_directory_path() / ("pelm-server-" + std::to_string(::getpid()));
}

std::string tooLargeMessage() {
    return "The request body is larger than the limit of 1 MiB (" +
           std::to_string(PelmServer::kMaxBodyBytes) + " bytes)";
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

Reply replyOf(ApiAnswer answer, std::chrono::milliseconds delay = std::chrono::milliseconds(0)) {
    Reply reply;
    reply.status = answer.status;
    reply.body = std::move(answer.body);
    reply.retryAfter = answer.retryAfter;
    reply.delay = delay;
    return reply;
}

void writeToStandardError(const std::string& line) {
    std::fprintf(stderr, "pelm-server: %s\n", line.c_str());
}

}  // namespace

// The answer to one request handed to the store's threads. Whoever answers first is heard: the store, the
// deadline, or a server that stops; the others find it answered. The connection is let go with the answer.
class PelmServer::PendingAnswer {
  public:
    PendingAnswer(std::function<void(Reply)> done, net::any_io_executor executor)
        : done_(std::move(done)), deadline_(std::move(executor)) {}

    /// True when this call answered.
    bool answer(Reply reply) {
        std::function<void(Reply)> done;
        {
            std::lock_guard lock(mutex_);
            done.swap(done_);
        }
        if (!done) return false;
        done(std::move(reply));
        return true;
    }
    bool answered() const {
        std::lock_guard lock(mutex_);
        return !done_;
    }
    /// Answers 503 when nothing else has by `within`.
    void answerUnavailableAfter(std::chrono::milliseconds within, std::shared_ptr<PendingAnswer> self) {
        deadline_.expires_after(within);
        deadline_.async_wait([self = std::move(self)](boost::system::error_code error) {
            if (error) return;
            self->answer(replyOf(
                ApiRoutes::unavailable("The database did not answer in time; send the request again later")));
        });
    }
    void cancelDeadline(std::shared_ptr<PendingAnswer> self) {
        net::post(deadline_.get_executor(), [self = std::move(self)] { self->deadline_.cancel(); });
    }

  private:
    mutable std::mutex mutex_;
    std::function<void(Reply)> done_;
    net::steady_timer deadline_;
};

struct PelmServer::Loop {
    explicit Loop(int storeThreads) : store(static_cast<std::size_t>(storeThreads)) {}
    net::io_context io;
    net::ssl::context tls{net::ssl::context::tls_server};
    tcp::acceptor acceptor{net::make_strand(io)};
    net::steady_timer acceptRetry{acceptor.get_executor()};
    std::optional<net::executor_work_guard<net::io_context::executor_type>> work;
    std::vector<std::thread> threads;
    net::thread_pool store;
};

PelmServer::PelmServer(Options options)
    : options_(std::move(options)),
      log_(&writeToStandardError),
      store_(
          openContentStore(options_.database, ContentStore::Open::CreateIfMissing, options_.cacheLifetime)),
      routes_(*store_,
              [this](const std::string& cause, const std::string& line) { log_.write(cause, line); }),
      loop_(std::make_unique<Loop>(std::max(1, options_.storeThreads))) {
    limits_.maxHeaderBytes = kMaxHeaderBytes;
    limits_.maxHeaderCount = kMaxHeaderCount;
    limits_.maxBodyBytes = kMaxBodyBytes;
    limits_.keepAlive = std::chrono::seconds(std::max(1, options_.keepAliveSeconds));
    limits_.headDeadline = options_.headDeadline;
    if (options_.certFile && options_.keyFile) {
        certFile_ = *options_.certFile;
        keyFile_ = *options_.keyFile;
    } else {
        const auto made = folderCertificate(options_.certificateFolder.value_or(defaultCertificateFolder()),
                                            365, options_.names);
        certFile_ = made.certFile;
        keyFile_ = made.keyFile;
        caFile_ = made.caFile;
        madeAuthority_ = made.madeAuthority;
    }
    auto& tls = loop_->tls;
    tls.set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                    net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 |
                    net::ssl::context::no_tlsv1_1);
    // TLS 1.2 with forward secrecy and authenticated encryption only (the CBC suites are open to padding
    // oracles such as Lucky13), in the server's order; TLS 1.3's suites are all of that kind.
    SSL_CTX_set_options(tls.native_handle(), SSL_OP_CIPHER_SERVER_PREFERENCE);
    SSL_CTX_set_cipher_list(tls.native_handle(),
                            "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
                            "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-AES128-GCM-SHA256:"
                            "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-RSA-CHACHA20-POLY1305");
    // An idle connection then holds no read or write buffer: thousands of phones cost little between
    // requests.
    SSL_CTX_set_mode(tls.native_handle(), SSL_MODE_RELEASE_BUFFERS);
    boost::system::error_code error;
    tls.use_certificate_chain_file(certFile_.string(), error);
    if (!error) tls.use_private_key_file(keyFile_.string(), net::ssl::context::pem, error);
    if (error) throw std::runtime_error("cannot load the certificate " + certFile_.string());
}

PelmServer::~PelmServer() {
    stop();
}

void PelmServer::start() {
    const auto where = [&] { return options_.bindAddress + ":" + std::to_string(options_.port); };
    boost::system::error_code error;
    const auto address = net::ip::make_address(options_.bindAddress, error);
    if (error) throw std::runtime_error("cannot listen on " + where() + ": not an IP address");
    const tcp::endpoint endpoint(address, static_cast<unsigned short>(options_.port));
    auto& acceptor = loop_->acceptor;
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
    allowDescriptorsFor(options_.maxConnections);
    {
        std::lock_guard lock(connectionsMutex_);
        accepting_ = true;
        state_ = State::Running;
    }
    net::post(acceptor.get_executor(), [this] { accept(); });
    loop_->work.emplace(loop_->io.get_executor());
    const auto threads = options_.threads > 0
                             ? options_.threads
                             : static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    for (int i = 0; i < threads; ++i) loop_->threads.emplace_back([this] { loop_->io.run(); });
}

void PelmServer::accept() {
    loop_->acceptor.async_accept(
        net::make_strand(loop_->io), [this](boost::system::error_code error, tcp::socket socket) {
            if (error == net::error::operation_aborted || !loop_->acceptor.is_open()) return;
            if (error) {
                // Out of descriptors or memory for a moment: accepting again at once would only spin.
                loop_->acceptRetry.expires_after(std::chrono::milliseconds(100));
                loop_->acceptRetry.async_wait([this](boost::system::error_code waited) {
                    if (!waited) accept();
                });
                return;
            }
            onAccepted(std::move(socket));
            accept();
        });
}

// At a limit, the new connection takes the slot of one that has cost its client nothing yet: a client that
// opens thousands of connections and sends nothing (or waits between requests) then loses its own oldest
// ones, not the phones their slots. With every slot busy, the new one is closed at once: the phone learns at
// once, and those already connected keep being served.
void PelmServer::onAccepted(tcp::socket socket) {
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    auto address = socket.remote_endpoint(ignored).address().to_string();
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard lock(connectionsMutex_);
        const auto fromAddress = openByAddress_[address];
        const bool admitted = accepting_ &&
                              (fromAddress < options_.maxConnectionsPerAddress || freeSlot(address)) &&
                              (open_.size() - closing_ < options_.maxConnections || freeSlot({}));
        if (!admitted) {
            if (fromAddress == 0) openByAddress_.erase(address);
            socket.close(ignored);
            return;
        }
        ConnectionOwner& owner = *this;
        connection = std::make_shared<Connection>(std::move(socket), loop_->tls, owner);
        ++openByAddress_[address];
        open_[connection.get()] = {connection, std::move(address), accepted_++, false};
        mostOpenSinceTrim_ = std::max(mostOpenSinceTrim_, open_.size());
    }
    net::post(connection->executor(), [connection] { connection->start(); });
}

bool PelmServer::freeSlot(const std::string& address) {
    OpenConnection* victim = nullptr;
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
    if (const auto count = openByAddress_.find(victim->address); --count->second == 0)
        openByAddress_.erase(count);
    net::post(connection->executor(), [connection] { connection->close(); });
    return true;
}

void PelmServer::ended(const void* connection) {
    std::lock_guard lock(connectionsMutex_);
    const auto found = open_.find(connection);
    if (found == open_.end()) return;
    if (found->second.closing) {
        --closing_;
    } else if (const auto address = openByAddress_.find(found->second.address);
               address != openByAddress_.end() && --address->second == 0) {
        openByAddress_.erase(address);
    }
    open_.erase(found);
    if (open_.empty()) connectionEnded_.notify_all();
    returnMemoryOfClosedConnections();
}

// The allocator keeps what closed connections held (their TLS buffers) for the process. After every thousand
// closed since the last time, and when the last of a hundred or more has closed, that memory is given back to
// the system, off the event loop.
void PelmServer::returnMemoryOfClosedConnections() {
    constexpr std::size_t kMany = 1000, kSome = 100;
    const auto closed = mostOpenSinceTrim_ - std::min(mostOpenSinceTrim_, open_.size());
    if (closed < kMany && !(open_.empty() && closed >= kSome)) return;
    mostOpenSinceTrim_ = open_.size();
    if (loop_) net::post(loop_->store, [] { malloc_trim(0); });
}

void PelmServer::closeConnections(bool gracefully) {
    std::vector<std::shared_ptr<Connection>> open;
    {
        std::lock_guard lock(connectionsMutex_);
        for (const auto& [key, entry] : open_) {
            if (auto alive = entry.connection.lock()) open.push_back(std::move(alive));
        }
    }
    for (auto& connection : open) {
        net::post(connection->executor(), [connection, gracefully] {
            if (gracefully) {
                connection->stopGracefully();
            } else {
                connection->close();
            }
        });
    }
}

void PelmServer::stop() {
    stopWithin(std::chrono::milliseconds::max());
}

bool PelmServer::stopWithin(std::chrono::milliseconds most) {
    if (!beginStop()) return true;
    if (!waitForStoreCalls(most)) return false;
    finishStop();
    return true;
}

// Stops accepting, answers what waits on the store, lets the requests in flight be answered for up to a
// second and closes whatever is left. False when there is nothing to stop: never started, or stopped. A
// stop that gave up on the store's calls is under way still: true, with nothing more to do here.
bool PelmServer::beginStop() {
    {
        std::lock_guard lock(connectionsMutex_);
        if (state_ == State::Stopping) return true;
        if (state_ != State::Running) return false;
        state_ = State::Stopping;
        accepting_ = false;
    }
    net::post(loop_->acceptor.get_executor(), [this] {
        boost::system::error_code ignored;
        loop_->acceptor.close(ignored);
        loop_->acceptRetry.cancel();
    });
    std::set<std::shared_ptr<PendingAnswer>> waiting;
    {
        std::lock_guard lock(storeMutex_);
        waiting = waitingOnStore_;
    }
    for (const auto& pending : waiting)
        pending->answer(
            replyOf(ApiRoutes::unavailable("The server is stopping; send the request again later")));
    const auto waitForConnections = [this](std::chrono::milliseconds most) {
        std::unique_lock lock(connectionsMutex_);
        connectionEnded_.wait_for(lock, most, [this] { return open_.empty(); });
    };
    closeConnections(true);
    waitForConnections(std::chrono::seconds(1));
    closeConnections(false);
    waitForConnections(std::chrono::milliseconds(200));
    return true;
}

bool PelmServer::waitForStoreCalls(std::chrono::milliseconds most) {
    std::unique_lock lock(storeMutex_);
    const auto ended = [this] { return waitingOnStore_.empty(); };
    if (most == std::chrono::milliseconds::max()) {
        storeCallEnded_.wait(lock, ended);
        return true;
    }
    return storeCallEnded_.wait_for(lock, most, ended);
}

void PelmServer::finishStop() {
    {
        std::lock_guard lock(connectionsMutex_);
        if (state_ == State::Stopped) return;  // another stop has finished it
        state_ = State::Stopped;
    }
    loop_->store.join();
    loop_->work.reset();
    loop_->io.stop();
    for (auto& thread : loop_->threads) thread.join();
    loop_.reset();  // and with it every connection still waiting on the loop
    log_.flush();
}

void PelmServer::handle(Request request, int remotePort, std::function<void(Reply)> done) {
    record(request, remotePort);
    const std::string target(request.target());
    const auto fault = faultFor(target.substr(0, target.find('?')));
    if (fault && (fault->dropConnection || fault->status || fault->body)) {
        Reply reply;
        reply.status = fault->status.value_or(200);
        reply.body = fault->body.value_or(R"({"status":"successful"})");
        reply.location = fault->location;
        reply.delay = fault->delay;
        reply.dropConnection = fault->dropConnection;
        return done(std::move(reply));
    }
    const auto delay = fault ? fault->delay : std::chrono::milliseconds(0);
    const auto method = request.method_string();
    if (auto answer = routes_.answerFromMemory({method.data(), method.size()}, target)) {
        return done(replyOf(std::move(*answer), delay));
    }
    auto pending = std::make_shared<PendingAnswer>(std::move(done), net::make_strand(loop_->io));
    askStore(std::move(request), std::move(pending), delay);
}

// The store's threads may all be waiting on a database that does not answer: the request is answered 503 at
// its deadline whatever they do, and one still queued then is not asked of the store at all.
void PelmServer::askStore(Request request, std::shared_ptr<PendingAnswer> pending,
                          std::chrono::milliseconds delay) {
    {
        std::lock_guard lock(storeMutex_);
        if (waitingOnStore_.size() >= options_.maxStoreQueue) {
            pending->answer(
                replyOf(ApiRoutes::unavailable("The server is busy; send the request again later")));
            return;
        }
        waitingOnStore_.insert(pending);
    }
    pending->answerUnavailableAfter(options_.storeDeadline, pending);
    net::post(loop_->store, [this, request = std::move(request), pending = std::move(pending), delay] {
        if (!pending->answered()) {
            const auto method = request.method_string();
            const auto target = request.target();
            auto answer = routes_.answer({method.data(), method.size()}, {target.data(), target.size()},
                                         request.body());
            pending->answer(replyOf(std::move(answer), delay));
        }
        storeCallEnded(pending);
    });
}

void PelmServer::storeCallEnded(const std::shared_ptr<PendingAnswer>& pending) {
    pending->cancelDeadline(pending);
    std::lock_guard lock(storeMutex_);
    waitingOnStore_.erase(pending);
    if (waitingOnStore_.empty()) storeCallEnded_.notify_all();
}

Reply PelmServer::refusal(int status) {
    const auto message = [status] {
        switch (status) {
            case 413:
                return tooLargeMessage();
            case 415:
                return std::string("The body must be sent as it is: no Content-Encoding is taken");
            case 431:
                return std::string("Request header fields too large");
            default:
                return std::string("The request could not be read");
        }
    }();
    auto answer = ApiRoutes::error(status, message);
    return replyOf(std::move(answer));
}

void PelmServer::setFault(const std::string& path, Fault fault) {
    std::lock_guard lock(mutex_);
    faults_[path] = std::move(fault);
}

void PelmServer::clearFaults() {
    std::lock_guard lock(mutex_);
    faults_.clear();
}

std::optional<PelmServer::Fault> PelmServer::faultFor(const std::string& path) const {
    std::lock_guard lock(mutex_);
    if (const auto found = faults_.find(path); found != faults_.end()) return found->second;
    return std::nullopt;
}

std::vector<PelmServer::ReceivedRequest> PelmServer::requests() const {
    std::lock_guard lock(mutex_);
    return {requests_.begin(), requests_.end()};
}

std::size_t PelmServer::connectionCount() const {
    std::lock_guard lock(mutex_);
    return connections_.size();
}

void PelmServer::record(const Request& request, int remotePort) {
    if (options_.recordRequests == 0) return;
    const std::string target(request.target());
    ReceivedRequest received{std::string(request.method_string()),
                             target.substr(0, target.find('?')),
                             target,
                             std::string(request[boost::beast::http::field::content_type]),
                             std::string(request[boost::beast::http::field::expect]),
                             request.body(),
                             remotePort};
    std::lock_guard lock(mutex_);
    connections_.insert(remotePort);
    requests_.push_back(std::move(received));
    if (requests_.size() > options_.recordRequests) requests_.pop_front();
}

}  // namespace pelm::server
