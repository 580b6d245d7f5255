#include "pelm_server/detail/connection.hpp"

#include <charconv>

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>

namespace pelm::server::detail {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;

// What is read of a request refused before its body, so that the refusal is not lost to a reset.
constexpr std::size_t kMaxDrainBytes = 4 * 1024 * 1024;
constexpr std::chrono::seconds kDrainDeadline{1};
constexpr std::chrono::seconds kWriteDeadline{30};
// How long a goodbye in TLS may take before the socket is closed regardless.
constexpr std::chrono::seconds kGoodbyeDeadline{1};
// Room for a request head, read in one go when it comes in one packet.
constexpr std::size_t kReadSize = 4096;

// Beast 1.74 has a string_view of its own.
std::string_view view(beast::string_view text) {
    return {text.data(), text.size()};
}

bool isParseError(const beast::error_code& error) {
    return error.category() == http::make_error_code(http::error::bad_target).category();
}

void appendNumber(std::string& out, long long value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    out.append(digits, end);
}

// The head of an answer, written by hand: the answer's body is sent as it is, without a message object made
// and serialised for every request.
void appendHead(std::string& out, const Reply& reply, std::size_t length, bool keepAlive) {
    out += "HTTP/1.1 ";
    appendNumber(out, reply.status);
    out += ' ';
    out += view(http::obsolete_reason(http::int_to_status(static_cast<unsigned>(reply.status))));
    out += "\r\nContent-Type: ";
    out += reply.contentType;
    out += "\r\n";
    if (reply.location) {
        out += "Location: ";
        out += *reply.location;
        out += "\r\n";
    }
    if (reply.retryAfter) {
        out += "Retry-After: ";
        appendNumber(out, *reply.retryAfter);
        out += "\r\n";
    }
    if (!keepAlive) out += "Connection: close\r\n";
    out += "Content-Length: ";
    appendNumber(out, static_cast<long long>(length));
    out += "\r\n\r\n";
}

}  // namespace

Connection::Connection(net::ip::tcp::socket socket, Executor executor, net::ssl::context& tls,
                       ConnectionOwner& owner)
    : executor_(executor), tls_(tls), tcp_(std::move(socket)), owner_(owner), delay_(executor_) {
    beast::error_code ignored;
    const auto remote = tcp_.socket().remote_endpoint(ignored);
    address_ = remote.address().to_string(ignored);
    remotePort_ = remote.port();
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
    if (idle_) closeGracefully();
}

void Connection::close() {
    closeSocket();
}

// Between requests a connection costs no deadline of the head's: it waits for the first byte as long as
// keep-alive allows, and only then must the whole head follow in time.
void Connection::waitForRequest() {
    idle_ = true;
    if (phase_.load() == Phase::Busy) phase_ = Phase::Idle;
    if (stopping_) return closeGracefully();
    if (buffer_.size() > 0) return readHead();  // the next request came with the last one
    beast::get_lowest_layer(*stream_).expires_after(owner_.limits().keepAlive);
    stream_->async_read_some(buffer_.prepare(kReadSize),
                             [self = shared_from_this()](beast::error_code error, std::size_t read) {
                                 if (self->sayingGoodbye_) return;  // the goodbye closes when it is sent
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
    // What the request was, for its count and log line, as far as its head was read.
    method_.clear();
    path_.clear();
    if (parser_->is_header_done()) {
        const auto& head = parser_->get();
        method_.assign(view(head.method_string()));
        const auto target = view(head.target());
        path_.assign(target.substr(0, target.find('?')));
    }
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
    auto& message = parser_->get();
    keepAlive_ = message.keep_alive();
    readAt_ = std::chrono::steady_clock::now();
    beast::get_lowest_layer(*stream_)
        .expires_never();  // the answer may take its time; the write has a deadline
    HttpRequest request{view(message.method_string()),
                        view(message.target()),
                        view(message[http::field::content_type]),
                        view(message[http::field::expect]),
                        std::move(message.body()),
                        address_,
                        remotePort_};
    owner_.handle(request, Responder(shared_from_this()));
}

void Connection::reply(Reply reply) {
    if (executor_.running_in_this_thread()) return answer(std::move(reply));
    net::post(executor_, [self = shared_from_this(), reply = std::move(reply)]() mutable {
        self->answer(std::move(reply));
    });
}

void Connection::answer(Reply reply) {
    if (closed_) return;
    if (reply.delay.count() <= 0) return write(reply);
    delay_.expires_after(reply.delay);
    delay_.async_wait(
        [self = shared_from_this(), reply = std::move(reply)](beast::error_code) { self->write(reply); });
}

void Connection::write(const Reply& reply) {
    if (closed_) return;
    if (reply.dropConnection) return writeHeadOnly(reply);
    const bool keepAlive = keepAlive_ && !stopping_;
    const auto body = reply.text();
    out_.clear();
    appendHead(out_, reply, body.size(), keepAlive);
    out_ += body;
    report(reply.status, body.size());
    beast::get_lowest_layer(*stream_).expires_after(kWriteDeadline);
    net::async_write(*stream_, net::buffer(out_),
                     [self = shared_from_this(), keepAlive](beast::error_code error, std::size_t) {
                         if (error) return self->closeSocket();
                         if (!keepAlive) return self->closeGracefully();
                         self->waitForRequest();
                     });
}

// A head that promises a body, then the end: what a broken server or proxy does to a client.
void Connection::writeHeadOnly(const Reply& reply) {
    out_.clear();
    Reply head = reply;
    appendHead(out_, head, 64, true);
    report(reply.status, 0);
    beast::get_lowest_layer(*stream_).expires_after(kWriteDeadline);
    net::async_write(*stream_, net::buffer(out_),
                     [self = shared_from_this()](beast::error_code, std::size_t) { self->closeSocket(); });
}

void Connection::report(int status, std::size_t bytes) {
    owner_.answered({address_, method_, path_, status, bytes, std::chrono::steady_clock::now() - readAt_});
}

// The refusal is sent, then what the client still sends is read and let go for a moment: closing at once
// could reset the connection before the client has read why.
void Connection::refuse(int status) {
    idle_ = false;
    readAt_ = std::chrono::steady_clock::now();
    const auto reply = owner_.refusal(status);
    out_.clear();
    appendHead(out_, reply, reply.text().size(), false);
    out_ += reply.text();
    report(status, reply.text().size());
    beast::get_lowest_layer(*stream_).expires_after(kWriteDeadline);
    net::async_write(*stream_, net::buffer(out_),
                     [self = shared_from_this()](beast::error_code error, std::size_t) {
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

// A client then knows the answer it read was whole (no one cut the connection short), and its TLS library
// need not report a truncation. The client's own goodbye is not waited for: the connection ends either way,
// and an idle client may not read for minutes.
void Connection::closeGracefully() {
    if (closed_ || !stream_) return closeSocket();
    phase_ = Phase::Busy;  // not to be chosen to free a slot while it says goodbye
    idle_ = false;
    sayingGoodbye_ = true;
    SSL_set_shutdown(stream_->native_handle(), SSL_RECEIVED_SHUTDOWN);
    beast::get_lowest_layer(*stream_).expires_after(kGoodbyeDeadline);
    stream_->async_shutdown([self = shared_from_this()](beast::error_code) { self->closeSocket(); });
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

}  // namespace pelm::server::detail
