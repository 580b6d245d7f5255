#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>

#include "pelm_server/request_handler.hpp"

namespace pelm::server::detail {

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

/// One request and its answer, as the server counts and logs it.
struct Exchange {
    std::string_view address, method, path;
    int status = 0;
    std::size_t bytes = 0;
    std::chrono::steady_clock::duration took{};
};

/// Where a connection takes its requests, reports its answers and says it has ended.
class ConnectionOwner {
  public:
    virtual ~ConnectionOwner() = default;
    virtual const ConnectionLimits& limits() const = 0;
    virtual void handle(HttpRequest& request, Responder respond) = 0;
    /// A request refused before it was read whole: 400, 413, 415 or 431.
    virtual Reply refusal(int status) = 0;
    /// Called on the connection's thread as each answer is handed to the socket.
    virtual void answered(const Exchange& exchange) = 0;
    virtual void ended(const void* connection) = 0;
};

/// One client's TLS connection: requests read one after another under deadlines and limits, each answered in
/// turn. It holds no thread between its reads and writes; all it does runs on the one event-loop thread it
/// was accepted on. Until its first byte arrives it is a bare socket: no TLS state, no buffer, so that a
/// crowd of silent connections costs little.
class Connection : public std::enable_shared_from_this<Connection>, public ReplySink {
  public:
    using Executor = boost::asio::io_context::executor_type;
    /// Where a connection is, for a server that must free a slot: one that has not yet sent a complete
    /// request head, or waits between requests, can be closed at no loss to its client's work.
    enum class Phase { Unproven, Idle, Busy };

    Connection(boost::asio::ip::tcp::socket socket, Executor executor, boost::asio::ssl::context& tls,
               ConnectionOwner& owner);
    ~Connection() override;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void start();
    /// The event-loop thread everything of this connection runs on.
    Executor executor() const { return executor_; }
    /// Read from any thread.
    Phase phase() const { return phase_.load(std::memory_order_relaxed); }
    /// The server stops: an idle connection closes now, a busy one after its answer.
    void stopGracefully();
    /// Closes now, whatever it was doing.
    void close();
    /// From any thread: answers the request read last.
    void reply(Reply reply) override;

  private:
    using Stream = boost::beast::ssl_stream<boost::beast::tcp_stream>;
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;

    void handshake();
    void waitForRequest();
    void readHead();
    void onHead(boost::beast::error_code error);
    void readBody();
    void onBody(boost::beast::error_code error);
    void answer(Reply reply);
    void write(const Reply& reply);
    void writeHeadOnly(const Reply& reply);
    void refuse(int status);
    void drain(std::size_t drained);
    std::optional<int> headProblem() const;
    void report(int status, std::size_t bytes);
    /// Says goodbye in TLS (close_notify) before the socket closes, when the connection is sound.
    void closeGracefully();
    void closeSocket();

    Executor executor_;
    boost::asio::ssl::context& tls_;
    boost::beast::tcp_stream tcp_;  // until the first byte; then inside stream_
    std::optional<Stream> stream_;
    ConnectionOwner& owner_;
    boost::beast::flat_buffer buffer_;
    std::optional<Parser> parser_;
    boost::asio::steady_timer delay_;
    std::string address_;
    int remotePort_ = 0;
    // The request being answered, for the answer's count and log line.
    std::string method_, path_;
    std::chrono::steady_clock::time_point readAt_;
    bool keepAlive_ = true;
    std::string out_;  // the answer being written, head and body; its room is kept for the next
    std::atomic<Phase> phase_{Phase::Unproven};
    bool idle_ = true;  // waiting for a request (or the handshake), nothing half read or unanswered
    bool stopping_ = false;
    bool sayingGoodbye_ = false;  // a read still pending then ends without closing what the goodbye closes
    bool closed_ = false;
};

}  // namespace pelm::server::detail
