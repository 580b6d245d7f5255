#include "pelm_server/connection.hpp"

#include <boost/asio/write.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

namespace pelm::server {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;

constexpr const char* kJSON = "application/json; charset=utf-8";
// What is read of a request refused before its body, so that the refusal is not lost to a reset.
constexpr std::size_t kMaxDrainBytes = 4 * 1024 * 1024;
constexpr std::chrono::seconds kDrainDeadline{1};
constexpr std::chrono::seconds kWriteDeadline{30};

std::shared_ptr<http::response<http::string_body>> responseOf(Reply reply, bool keepAlive) {
    auto response =
        std::make_shared<http::response<http::string_body>>(static_cast<http::status>(reply.status), 11);
    response->set(http::field::content_type, kJSON);
    if (reply.location) response->set(http::field::location, *reply.location);
    if (reply.retryAfter) response->set(http::field::retry_after, std::to_string(*reply.retryAfter));
    response->keep_alive(keepAlive);
    response->body() = std::move(reply.body);
    response->prepare_payload();
    return response;
}

bool isParseError(const beast::error_code& error) {
    return error.category() == http::make_error_code(http::error::bad_target).category();
}

}  // namespace

Connection::Connection(net::ip::tcp::socket socket, net::ssl::context& tls, ConnectionOwner& owner)
    : executor_(socket.get_executor()), tls_(tls), tcp_(std::move(socket)), owner_(owner), delay_(executor_) {
    beast::error_code ignored;
    remotePort_ = tcp_.socket().remote_endpoint(ignored).port();
}

Connection::~Connection() {
    if (!closed_) owner_.ended(this);
}

// The head's deadline runs from the connection's first moment: a client that sends nothing is closed
// when it passes, as one that sends its head too slowly is.
void Connection::start() {
    delay_.expires_after(owner_.limits().headDeadline);
    delay_.async_wait([self = shared_from_this()](beast::error_code error) {
        if (!error && !self->stream_) self->closeSocket();
    });
    tcp_.socket().async_wait(net::socket_base::wait_read,
                             [self = shared_from_this()](beast::error_code error) {
                                 // Readable with nothing to read is the client leaving: no TLS state is
                                 // made for it.
                                 beast::error_code unread;
                                 if (error || self->closed_ || self->tcp_.socket().available(unread) == 0)
                                     return self->closeSocket();
                                 self->delay_.cancel();
                                 self->handshake();
                             });
}

void Connection::handshake() {
    stream_.emplace(std::move(tcp_), tls_);
    beast::get_lowest_layer(*stream_).expires_after(owner_.limits().headDeadline);
    stream_->async_handshake(net::ssl::stream_base::server,
                             [self = shared_from_this()](beast::error_code error) {
                                 if (error) return self->closeSocket();
                                 self->waitForRequest();
                             });
}

void Connection::stopGracefully() {
    stopping_ = true;
    if (idle_) closeSocket();
}

void Connection::close() {
    closeSocket();
}

// Between requests a connection costs no deadline of the head's: it waits for the first byte as long as
// keep-alive allows, and only then must the whole head follow in time.
void Connection::waitForRequest() {
    idle_ = true;
    if (phase_.load() == Phase::Busy) phase_ = Phase::Idle;
    if (stopping_) return closeSocket();
    if (buffer_.size() > 0) return readHead();  // the next request came with the last one
    beast::get_lowest_layer(*stream_).expires_after(owner_.limits().keepAlive);
    stream_->async_read_some(buffer_.prepare(4096),
                             [self = shared_from_this()](beast::error_code error, std::size_t read) {
                                 self->buffer_.commit(read);
                                 if (error || self->closed_) return self->closeSocket();
                                 self->readHead();
                             });
}

void Connection::readHead() {
    idle_ = false;
    const auto& limits = owner_.limits();
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(limits.maxHeaderBytes));
    parser_->body_limit(limits.maxBodyBytes);
    beast::get_lowest_layer(*stream_).expires_after(limits.headDeadline);
    http::async_read_header(
        *stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code error, std::size_t) { self->onHead(error); });
}

void Connection::onHead(beast::error_code error) {
    if (closed_) return;
    if (error == http::error::header_limit) return refuse(431);
    if (error == http::error::body_limit) return refuse(413);  // announced by its length alone
    if (error && isParseError(error)) return refuse(400);
    if (error) return closeSocket();  // the deadline passed, or the client left
    phase_ = Phase::Busy;
    if (const auto problem = headProblem()) return refuse(*problem);
    if (beast::iequals(parser_->get()[http::field::expect], "100-continue")) {
        static const std::string kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        net::async_write(*stream_, net::buffer(kContinue),
                         [self = shared_from_this()](beast::error_code written, std::size_t) {
                             if (written) return self->closeSocket();
                             self->readBody();
                         });
        return;
    }
    readBody();
}

// Checked on the head alone, so that no body is read, let alone inflated, for a request that is refused.
std::optional<int> Connection::headProblem() const {
    const auto& head = parser_->get();
    if (static_cast<std::size_t>(std::distance(head.begin(), head.end())) > owner_.limits().maxHeaderCount)
        return 431;
    const auto encoding = head[http::field::content_encoding];
    if (!encoding.empty() && !beast::iequals(encoding, "identity")) return 415;
    return std::nullopt;
}

void Connection::readBody() {
    if (parser_->is_done()) return onBody({});
    const auto& limits = owner_.limits();
    const auto announced = parser_->content_length().value_or(limits.maxBodyBytes);
    beast::get_lowest_layer(*stream_).expires_after(
        limits.bodyGrace + std::chrono::seconds(announced / limits.minBodyBytesPerSecond));
    http::async_read(
        *stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code error, std::size_t) { self->onBody(error); });
}

void Connection::onBody(beast::error_code error) {
    if (closed_) return;
    if (error == http::error::body_limit) return refuse(413);
    if (error && isParseError(error)) return refuse(400);
    if (error) return closeSocket();
    auto request = parser_->release();
    parser_.reset();
    const bool keepAlive = request.keep_alive();
    beast::get_lowest_layer(*stream_)
        .expires_never();  // the answer may take its time; the write has a deadline
    owner_.handle(std::move(request), remotePort_, [self = shared_from_this(), keepAlive](Reply reply) {
        auto executor = self->executor_;
        net::post(executor, [self = std::move(self), reply = std::move(reply), keepAlive]() mutable {
            self->answer(std::move(reply), keepAlive);
        });
    });
}

void Connection::answer(Reply reply, bool keepAlive) {
    if (closed_) return;
    if (reply.delay.count() <= 0) return write(std::move(reply), keepAlive);
    delay_.expires_after(reply.delay);
    delay_.async_wait([self = shared_from_this(), reply = std::move(reply),
                       keepAlive](beast::error_code) mutable { self->write(std::move(reply), keepAlive); });
}

void Connection::write(Reply reply, bool keepAlive) {
    if (closed_) return;
    beast::get_lowest_layer(*stream_).expires_after(kWriteDeadline);
    if (reply.dropConnection) {
        auto head =
            std::make_shared<std::string>("HTTP/1.1 " + std::to_string(reply.status) +
                                          " OK\r\nContent-Type: " + kJSON + "\r\nContent-Length: 64\r\n\r\n");
        net::async_write(
            *stream_, net::buffer(*head),
            [self = shared_from_this(), head](beast::error_code, std::size_t) { self->closeSocket(); });
        return;
    }
    keepAlive = keepAlive && !stopping_;
    auto response = responseOf(std::move(reply), keepAlive);
    http::async_write(*stream_, *response,
                      [self = shared_from_this(), response, keepAlive](beast::error_code error, std::size_t) {
                          if (error || !keepAlive) return self->closeSocket();
                          self->waitForRequest();
                      });
}

// The refusal is sent, then what the client still sends is read and let go for a moment: closing at once
// could reset the connection before the client has read why.
void Connection::refuse(int status) {
    idle_ = false;
    auto response = responseOf(owner_.refusal(status), false);
    beast::get_lowest_layer(*stream_).expires_after(kWriteDeadline);
    http::async_write(*stream_, *response,
                      [self = shared_from_this(), response](beast::error_code error, std::size_t) {
                          if (error) return self->closeSocket();
                          self->drain(0);
                      });
}

void Connection::drain(std::size_t drained) {
    if (closed_ || drained > kMaxDrainBytes) return closeSocket();
    if (drained == 0) beast::get_lowest_layer(*stream_).expires_after(kDrainDeadline);
    buffer_.clear();
    stream_->async_read_some(buffer_.prepare(16 * 1024),
                             [self = shared_from_this(), drained](beast::error_code error, std::size_t read) {
                                 if (error) return self->closeSocket();
                                 self->drain(drained + read);
                             });
}

void Connection::closeSocket() {
    if (closed_) return;
    closed_ = true;
    delay_.cancel();
    auto& socket = stream_ ? beast::get_lowest_layer(*stream_).socket() : tcp_.socket();
    beast::error_code ignored;
    socket.shutdown(net::ip::tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
    owner_.ended(this);
}

}  // namespace pelm::server
