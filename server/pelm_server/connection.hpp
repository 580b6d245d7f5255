#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

namespace pelm::server {

using Request = boost::beast::http::request<boost::beast::http::string_body>;

/// What a connection sends back for one request.
struct Reply {
    int status = 200;
    std::string body;
    std::optional<std::string> location;
    std::optional<int> retryAfter;       // seconds, for a 503
    std::chrono::milliseconds delay{0};  // waited on a timer, holding no thread
    bool dropConnection = false;         // send the head, then close without the promised body
};

/// What every connection may take, and how long it may take it.
struct ConnectionLimits {
    std::size_t maxHeaderBytes = 16 * 1024;
    std::size_t maxHeaderCount = 100;
    std::size_t maxBodyBytes = 1024 * 1024;
    /// From the first byte of a request (or the TLS handshake) to the end of its head.
    std::chrono::milliseconds headDeadline{10000};
    /// A body may take this long, plus a second for every minBodyBytesPerSecond it announces.
    std::chrono::seconds bodyGrace{10};
    std::size_t minBodyBytesPerSecond = 64 * 1024;
    /// A kept-alive connection with no request coming is closed after this long.
    std::chrono::seconds keepAlive{30};
};

/// Where a connection takes its requests and says it has ended.
class ConnectionOwner {
  public:
    virtual ~ConnectionOwner() = default;
    virtual const ConnectionLimits& limits() const = 0;
    /// Answers a whole request, calling `done` once (from any thread).
    virtual void handle(Request request, int remotePort, std::function<void(Reply)> done) = 0;
    /// A request refused before it was read whole: 400, 408, 413, 415 or 431.
    virtual Reply refusal(int status) = 0;
    virtual void ended(const void* connection) = 0;
};

/// One client's TLS connection: requests read one after another under deadlines and limits, each answered in
/// turn. It holds no thread between its reads and writes; all it does runs on its own strand. Until its
/// first byte arrives it is a bare socket: no TLS state, no buffer, so that a crowd of silent connections
/// costs little.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    /// Where a connection is, for a server that must free a slot: one that has not yet sent a complete
    /// request head, or waits between requests, can be closed at no loss to its client's work.
    enum class Phase { Unproven, Idle, Busy };

    Connection(boost::asio::ip::tcp::socket socket, boost::asio::ssl::context& tls, ConnectionOwner& owner);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void start();
    /// The strand everything of this connection runs on.
    boost::asio::any_io_executor executor() const { return executor_; }
    /// Read from any thread.
    Phase phase() const { return phase_.load(std::memory_order_relaxed); }
    /// The server stops: an idle connection closes now, a busy one after its answer.
    void stopGracefully();
    /// Closes now, whatever it was doing.
    void close();

  private:
    using Stream = boost::beast::ssl_stream<boost::beast::tcp_stream>;
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;

    void handshake();
    void waitForRequest();
    void readHead();
    void onHead(boost::beast::error_code error);
    void readBody();
    void onBody(boost::beast::error_code error);
    void answer(Reply reply, bool keepAlive);
    void write(Reply reply, bool keepAlive);
    void refuse(int status);
    void drain(std::size_t drained);
    std::optional<int> headProblem() const;
    void closeSocket();

    boost::asio::any_io_executor executor_;
    boost::asio::ssl::context& tls_;
    boost::beast::tcp_stream tcp_;  // until the first byte; then inside stream_
    std::optional<Stream> stream_;
    ConnectionOwner& owner_;
    boost::beast::flat_buffer buffer_;
    std::optional<Parser> parser_;
    boost::asio::steady_timer delay_;
    int remotePort_ = 0;
    std::atomic<Phase> phase_{Phase::Unproven};
    bool idle_ = true;  // waiting for a request (or the handshake), nothing half read or unanswered
    bool stopping_ = false;
    bool closed_ = false;
};

}  // namespace pelm::server
