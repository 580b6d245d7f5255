// What pelm-server does with connections that are slow, too many, compressed, or open when it stops.
#include <gmock/gmock.h>

#include <thread>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/write.hpp>

#include "support/server_fixture.hpp"

namespace pelm::server {
namespace {

namespace net = boost::asio;
using tcp = net::ip::tcp;

// A client that writes exactly the bytes it is given, as slowly or as badly as a test wants.
class RawClient {
  public:
    RawClient(int port, const std::filesystem::path& ca)
        : tls_(net::ssl::context::tls_client), stream_(io_, tls_) {
        tls_.load_verify_file(ca.string());
        tls_.set_verify_mode(net::ssl::verify_peer);
        SSL_set_tlsext_host_name(stream_.native_handle(), "localhost");
        net::connect(stream_.lowest_layer(), tcp::resolver(io_).resolve("127.0.0.1", std::to_string(port)));
    }
    void handshake() { stream_.handshake(net::ssl::stream_base::client); }
    boost::system::error_code send(const std::string& bytes) {
        boost::system::error_code error;
        net::write(stream_, net::buffer(bytes), error);
        return error;
    }
    /// Everything until the server closes the connection (or has sent `enough`).
    std::string readUntilClosed(std::size_t enough = SIZE_MAX) {
        std::string received;
        char chunk[4096];
        boost::system::error_code error;
        while (!error && received.size() < enough) {
            const auto read = stream_.read_some(net::buffer(chunk), error);
            received.append(chunk, read);
        }
        return received;
    }
    /// Whether the server closed the connection without a word (the handshake never finished).
    bool closedBeforeHandshake() {
        boost::system::error_code error;
        stream_.handshake(net::ssl::stream_base::client, error);
        return static_cast<bool>(error);
    }

  private:
    net::io_context io_;
    net::ssl::context tls_;
    net::ssl::stream<tcp::socket> stream_;
};

std::string statusRequest() {
    return "GET /api/v1/status?app_token=" + std::string(testing::kToken) +
           " HTTP/1.1\r\nHost: localhost\r\n\r\n";
}

class ServerConnections : public ::testing::Test {
  protected:
    std::unique_ptr<PelmServer> start(PelmServer::Options options) {
        options.certificateFolder = folder_.path();
        options.database = testing::testDatabase();
        auto server = std::make_unique<PelmServer>(options);
        server->store().seed(testing::testSeed());
        server->start();
        return server;
    }
    testing::TempFolder folder_{"pelm-server-connections"};
};

TEST_F(ServerConnections, ASlowHeadIsCutAtItsDeadlineWhileOtherClientsAreServed) {
    PelmServer::Options options;
    options.headDeadline = std::chrono::milliseconds(300);
    const auto server = start(options);
    RawClient slow(server->port(), *server->caFile());
    slow.handshake();
    bool sentAll = true;
    std::thread dripping([&] {
        for (const char byte : statusRequest().substr(0, 20)) {
            if (slow.send(std::string(1, byte))) return void(sentAll = false);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    RawClient prompt(server->port(), *server->caFile());
    prompt.handshake();
    prompt.send(statusRequest());
    EXPECT_THAT(prompt.readUntilClosed(12), ::testing::StartsWith("HTTP/1.1 200"));
    EXPECT_EQ(slow.readUntilClosed(), "");  // closed, nothing answered
    dripping.join();
    EXPECT_FALSE(sentAll) << "the head was taken a byte at a time for two seconds";
}

TEST_F(ServerConnections, ACompressedBodyIsRefusedUnreadAndAnUnreadableHeadIs400) {
    const auto server = start({});
    RawClient gzip(server->port(), *server->caFile());
    gzip.handshake();
    gzip.send(
        "POST /api/v1/sessions HTTP/1.1\r\nHost: localhost\r\nContent-Encoding: gzip\r\nContent-Length: "
        "100000\r\n\r\n");
    const auto refused = gzip.readUntilClosed();
    EXPECT_THAT(refused, ::testing::StartsWith("HTTP/1.1 415"));
    EXPECT_THAT(refused, ::testing::HasSubstr("no Content-Encoding is taken"));

    RawClient garbled(server->port(), *server->caFile());
    garbled.handshake();
    garbled.send("GET /api/v1/status HTTP/1.1\r\nHost localhost\r\n\r\n");
    EXPECT_THAT(garbled.readUntilClosed(), ::testing::StartsWith("HTTP/1.1 400"));
    EXPECT_TRUE(server->store().sessions().empty());
}

TEST_F(ServerConnections, PastTheLimitNewConnectionsAreClosedAndThoseOpenAreStillServed) {
    PelmServer::Options options;
    options.maxConnections = 2;
    const auto server = start(options);
    RawClient first(server->port(), *server->caFile()), second(server->port(), *server->caFile());
    first.handshake();
    second.handshake();
    RawClient third(server->port(), *server->caFile());
    EXPECT_TRUE(third.closedBeforeHandshake());
    for (auto* open : {&first, &second}) {
        open->send(statusRequest());
        EXPECT_THAT(open->readUntilClosed(12), ::testing::StartsWith("HTTP/1.1 200"));
    }
}

// Stopping closes idle connections at once and lets a request in flight be answered.
TEST_F(ServerConnections, StoppingAnswersTheRequestInFlightAndClosesTheIdle) {
    auto server = start({});
    PelmServer::Fault slow;
    slow.delay = std::chrono::milliseconds(300);
    server->setFault("/api/v1/status", slow);
    RawClient idle(server->port(), *server->caFile()), busy(server->port(), *server->caFile());
    idle.handshake();
    busy.handshake();
    busy.send(statusRequest());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the request is in, its answer waits
    std::thread stopping([&] { server->stop(); });
    EXPECT_EQ(idle.readUntilClosed(), "");
    const auto answer = busy.readUntilClosed();
    EXPECT_THAT(answer, ::testing::StartsWith("HTTP/1.1 200"));
    EXPECT_THAT(answer, ::testing::HasSubstr("Connection: close"));
    stopping.join();
}

}  // namespace
}  // namespace pelm::server
