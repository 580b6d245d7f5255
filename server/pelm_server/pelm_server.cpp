#include "pelm_server/pelm_server.hpp"

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
    reply.delay = delay;
    return reply;
}

}  // namespace

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
      store_(
          openContentStore(options_.database, ContentStore::Open::CreateIfMissing, options_.cacheLifetime)),
      routes_(*store_, &PelmServer::log),
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
    }
    auto& tls = loop_->tls;
    tls.set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                    net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 |
                    net::ssl::context::no_tlsv1_1);
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

// Past the limit a connection is closed as soon as it is accepted: the phone learns at once, and those
// already connected keep being served.
void PelmServer::onAccepted(tcp::socket socket) {
    boost::system::error_code ignored;
    socket.set_option(tcp::no_delay(true), ignored);
    std::shared_ptr<Connection> connection;
    {
        std::lock_guard lock(connectionsMutex_);
        if (!accepting_ || open_.size() >= options_.maxConnections) {
            socket.close(ignored);
            return;
        }
        ConnectionOwner& owner = *this;
        connection = std::make_shared<Connection>(std::move(socket), loop_->tls, owner);
        open_[connection.get()] = connection;
    }
    net::post(connection->executor(), [connection] { connection->start(); });
}

void PelmServer::ended(const void* connection) {
    std::lock_guard lock(connectionsMutex_);
    open_.erase(connection);
    if (open_.empty()) connectionEnded_.notify_all();
}

void PelmServer::closeConnections(bool gracefully) {
    std::vector<std::shared_ptr<Connection>> open;
    {
        std::lock_guard lock(connectionsMutex_);
        for (const auto& [address, connection] : open_) {
            if (auto alive = connection.lock()) open.push_back(std::move(alive));
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

// Stops accepting, lets the requests in flight be answered for up to a second, closes whatever is left,
// and returns once every store call has ended.
void PelmServer::stop() {
    if (!loop_ || loop_->threads.empty()) return;
    {
        std::lock_guard lock(connectionsMutex_);
        accepting_ = false;
    }
    net::post(loop_->acceptor.get_executor(), [this] {
        boost::system::error_code ignored;
        loop_->acceptor.close(ignored);
        loop_->acceptRetry.cancel();
    });
    const auto waitForConnections = [this](std::chrono::milliseconds most) {
        std::unique_lock lock(connectionsMutex_);
        connectionEnded_.wait_for(lock, most, [this] { return open_.empty(); });
    };
    closeConnections(true);
    waitForConnections(std::chrono::seconds(1));
    closeConnections(false);
    waitForConnections(std::chrono::milliseconds(200));
    loop_->store.join();
    loop_->work.reset();
    loop_->io.stop();
    for (auto& thread : loop_->threads) thread.join();
    loop_.reset();  // and with it every connection still waiting on the loop
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
    net::post(loop_->store, [this, request = std::move(request), done = std::move(done), delay] {
        const auto method = request.method_string();
        const auto target = request.target();
        auto answer =
            routes_.answer({method.data(), method.size()}, {target.data(), target.size()}, request.body());
        done(replyOf(std::move(answer), delay));
    });
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

void PelmServer::log(const std::string& line) {
    std::fprintf(stderr, "pelm-server: %s\n", line.c_str());
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
