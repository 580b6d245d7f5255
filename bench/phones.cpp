// pelm-phones: a store full of phones against a pelm-server, each phone on one persistent TLS connection,
// counted one by one, so that a phone the server never answers shows up (a load generator that counts only
// the answers it got cannot see it). Optionally an attack beside them.
//
//   pelm-phones --host localhost:PORT --ca FILE [--phones N] [--seconds S] [--uploads PERCENT]
//               [--server-pid PID] [--hold SECONDS]
//               [--reconnect yes|no] [--attack slowloris|gzip|headers|silent] [--attackers N] [--body FILE]
//
// Prints one line per figure, "name value", for scripts to read.
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

// Boost 1.74 looks for clang's coroutines only in libc++'s <experimental/coroutine>; with libstdc++'s
// <coroutine> clang has them all the same.
#if defined(__clang__) && defined(__cpp_impl_coroutine) && __has_include(<coroutine>)
#define BOOST_ASIO_HAS_CO_AWAIT 1
#endif
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>

namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
using Stream = beast::ssl_stream<beast::tcp_stream>;

struct Options {
    std::string host = "localhost";
    std::string port;
    std::string ca;
    int phones = 200;
    int seconds = 30;
    int uploadPercent = 10;
    int serverPid = 0;
    int hold = 0;
    bool reconnect = false;  // a new connection for every request, as a phone after an idle gap
    std::string attack;
    int attackers = 0;
    std::string body;
};

struct Phone {
    std::uint64_t answers = 0;
    std::uint64_t uploads = 0;  // answered 201: stored
    std::uint64_t errors = 0;
    std::vector<std::uint32_t> micros;  // one per answer
};

struct Run {
    Options options;
    net::io_context io{1};
    net::ssl::context tls{net::ssl::context::tls_client};
    tcp::resolver::results_type endpoints;
    Clock::time_point end;
    std::vector<Phone> phones;
    std::atomic<bool> attacking{true};
    std::uint64_t attackConnections = 0, attackRefusals = 0;
    std::uint64_t bytesSentByAttack = 0;
};

constexpr const char* kUuid = "F7826DA6-4FA2-4E98-8024-BC5B71E0893E";

std::string uploadForm(int phone, std::uint64_t visit) {
    return std::string("app_token=demo-token&beacon%5Buuid%5D=") + kUuid +
           "&beacon%5Bmajor%5D=1&beacon%5Bminor%5D=9&session%5Bapp_version%5D=2.4.1&session%5Bsdk_version%5D="
           "1.0.0"
           "&session%5Bstart_time%5D=2026-11-23T09%3A00%3A00.000%2B0000"
           "&session%5Bend_time%5D=2026-11-23T09%3A10%3A00.000%2B0000&session_logs%5B%5D%5Buuid%5D=" +
           kUuid + "&session_logs%5B%5D%5Bmajor%5D=1&session_logs%5B%5D%5Bminor%5D=9&session_user=phone-" +
           std::to_string(phone) + "-" + std::to_string(visit);
}

http::request<http::string_body> phoneRequest(const Run& run, int phone, std::uint64_t count) {
    const bool upload = run.options.uploadPercent > 0 &&
                        count % static_cast<std::uint64_t>(100 / run.options.uploadPercent) ==
                            static_cast<std::uint64_t>(100 / run.options.uploadPercent) - 1;
    http::request<http::string_body> request;
    request.version(11);
    request.set(http::field::host, run.options.host);
    request.keep_alive(true);
    if (upload) {
        request.method(http::verb::post);
        request.target("/api/v1/sessions");
        request.set(http::field::content_type, "application/x-www-form-urlencoded; charset=utf-8");
        request.body() = uploadForm(phone, count);
    } else {
        request.method(http::verb::get);
        request.target(
            std::string("/api/v1/contents/by_hardware?app_token=demo-token&major=1&minor=9&type=BLE&uuid=") +
            kUuid);
    }
    request.prepare_payload();
    return request;
}

net::awaitable<std::unique_ptr<Stream>> connect(Run& run) {
    auto stream = std::make_unique<Stream>(co_await net::this_coro::executor, run.tls);
    SSL_set_tlsext_host_name(stream->native_handle(), run.options.host.c_str());
    beast::get_lowest_layer(*stream).expires_after(std::chrono::seconds(30));
    co_await beast::get_lowest_layer(*stream).async_connect(run.endpoints, net::use_awaitable);
    beast::get_lowest_layer(*stream).socket().set_option(tcp::no_delay(true));
    co_await stream->async_handshake(net::ssl::stream_base::client, net::use_awaitable);
    co_return stream;
}

net::awaitable<void> pause(std::chrono::milliseconds time) {
    net::steady_timer timer(co_await net::this_coro::executor, time);
    co_await timer.async_wait(net::use_awaitable);
}

// One phone: asks, waits for the answer, asks again, on one connection; a broken one is made again.
net::awaitable<void> phone(Run& run, int index) {
    auto& phone = run.phones[static_cast<std::size_t>(index)];
    std::uint64_t count = 0;
    while (Clock::now() < run.end) {
        try {
            auto stream = co_await connect(run);
            beast::flat_buffer buffer;
            while (Clock::now() < run.end) {
                auto request = phoneRequest(run, index, count++);
                const auto sent = Clock::now();
                beast::get_lowest_layer(*stream).expires_after(std::chrono::seconds(30));
                co_await http::async_write(*stream, request, net::use_awaitable);
                http::response<http::string_body> response;
                co_await http::async_read(*stream, buffer, response, net::use_awaitable);
                const auto micros =
                    std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - sent);
                if (response.result_int() >= 400) {
                    ++phone.errors;
                    continue;
                }
                ++phone.answers;
                if (response.result_int() == 201) ++phone.uploads;
                phone.micros.push_back(static_cast<std::uint32_t>(micros.count()));
                if (run.options.reconnect) break;
            }
            if (run.options.hold > 0) {  // idle, connection open, while the server is stopped
                co_await pause(std::chrono::seconds(run.options.hold));
            }
        } catch (const std::exception&) {
            ++phone.errors;
        }
        if (Clock::now() < run.end) co_await pause(std::chrono::milliseconds(100));
    }
}

// A head sent one byte a second: a server that keeps a thread for it runs out of threads.
net::awaitable<void> slowloris(Run& run) {
    const std::string head = "GET /api/v1/status?app_token=demo-token HTTP/1.1\r\nHost: localhost\r\nX-A: ";
    while (Clock::now() < run.end) {
        try {
            auto stream = co_await connect(run);
            ++run.attackConnections;
            beast::get_lowest_layer(*stream).expires_never();
            for (std::size_t at = 0; Clock::now() < run.end; ++at) {
                co_await net::async_write(*stream, net::buffer(&head[at % head.size()], 1),
                                          net::use_awaitable);
                ++run.bytesSentByAttack;
                co_await pause(std::chrono::seconds(1));
            }
        } catch (const std::exception&) {
            ++run.attackRefusals;  // the server closed it
        }
        co_await pause(std::chrono::milliseconds(100));
    }
}

// A connection that sends nothing, from another loopback address (127.0.0.2), held to the end: a client that
// would hold every slot of the server. One the server closes is counted, not opened again (that would be a
// flood of new connections, another attack).
net::awaitable<void> silent(Run& run) {
    const auto executor = co_await net::this_coro::executor;
    try {
        tcp::socket socket(executor);
        socket.open(tcp::v4());
        socket.bind(tcp::endpoint(net::ip::make_address("127.0.0.2"), 0));
        co_await socket.async_connect(*run.endpoints.begin(), net::use_awaitable);
        ++run.attackConnections;
        char byte = 0;
        beast::tcp_stream stream(std::move(socket));
        stream.expires_at(run.end);
        co_await stream.async_read_some(net::buffer(&byte, 1), net::use_awaitable);
    } catch (const std::exception&) {
    }
    if (Clock::now() < run.end) ++run.attackRefusals;  // the server closed it
}

// A request whose body or head is far beyond any limit, sent again as soon as it is refused.
net::awaitable<void> oversized(Run& run, bool headers) {
    std::string body;
    if (!headers) {
        std::ifstream file(run.options.body, std::ios::binary);
        body.assign(std::istreambuf_iterator<char>(file), {});
    }
    const std::string line = "X-Fill: " + std::string(990, 'a') + "\r\n";
    while (Clock::now() < run.end) {
        try {
            auto stream = co_await connect(run);
            ++run.attackConnections;
            beast::get_lowest_layer(*stream).expires_after(std::chrono::seconds(60));
            std::string head = headers
                                   ? "GET /api/v1/status?app_token=demo-token HTTP/1.1\r\nHost: localhost\r\n"
                                   : "POST /api/v1/sessions HTTP/1.1\r\nHost: localhost\r\nContent-Type: "
                                     "application/x-www-form-urlencoded\r\nContent-Encoding: gzip\r\n"
                                     "Content-Length: " +
                                         std::to_string(body.size()) + "\r\n\r\n";
            co_await net::async_write(*stream, net::buffer(head), net::use_awaitable);
            if (headers) {
                std::string chunk;
                for (int i = 0; i < 64; ++i) chunk += line;  // 64 KB a write, 80 MB in all
                for (int i = 0; i < 80 * 1024 * 1024 / static_cast<int>(chunk.size()); ++i) {
                    co_await net::async_write(*stream, net::buffer(chunk), net::use_awaitable);
                    run.bytesSentByAttack += chunk.size();
                }
            } else {
                co_await net::async_write(*stream, net::buffer(body), net::use_awaitable);
                run.bytesSentByAttack += body.size();
            }
            beast::flat_buffer buffer;
            http::response<http::string_body> response;
            co_await http::async_read(*stream, buffer, response, net::use_awaitable);
            ++run.attackRefusals;
        } catch (const std::exception&) {
            ++run.attackRefusals;  // closed while sending: refused just the same
        }
    }
}

struct ServerFigures {
    long rssKiB = -1, peakKiB = -1, threads = -1;
};

ServerFigures serverFigures(int pid) {
    ServerFigures figures;
    if (pid <= 0) return figures;
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string key;
    long value = 0;
    std::string line;
    while (std::getline(status, line)) {
        std::istringstream words(line);
        words >> key >> value;
        if (key == "VmRSS:") figures.rssKiB = value;
        if (key == "VmHWM:") figures.peakKiB = value;
        if (key == "Threads:") figures.threads = value;
    }
    return figures;
}

void report(const Run& run, double seconds, const ServerFigures& before, const ServerFigures& after) {
    std::vector<std::uint32_t> all;
    std::uint64_t answers = 0, uploads = 0, errors = 0, starved = 0;
    for (const auto& phone : run.phones) {
        answers += phone.answers;
        uploads += phone.uploads;
        errors += phone.errors;
        starved += phone.answers == 0 ? 1 : 0;
        all.insert(all.end(), phone.micros.begin(), phone.micros.end());
    }
    std::sort(all.begin(), all.end());
    const auto at = [&](double fraction) {
        if (all.empty()) return 0.0;
        return all[std::min(all.size() - 1,
                            static_cast<std::size_t>(fraction * static_cast<double>(all.size())))] /
               1000.0;
    };
    std::printf("phones %zu\nanswers %llu\nreq_per_s %.0f\np50_ms %.2f\np99_ms %.2f\nmax_ms %.2f\n",
                run.phones.size(), static_cast<unsigned long long>(answers),
                static_cast<double>(answers) / seconds, at(0.5), at(0.99),
                all.empty() ? 0.0 : all.back() / 1000.0);
    std::printf("uploads %llu\nstarved_phones %llu\nerrors %llu\n", static_cast<unsigned long long>(uploads),
                static_cast<unsigned long long>(starved), static_cast<unsigned long long>(errors));
    if (!run.options.attack.empty()) {
        std::printf("attack %s\nattack_connections %llu\nattack_refused %llu\nattack_bytes %llu\n",
                    run.options.attack.c_str(), static_cast<unsigned long long>(run.attackConnections),
                    static_cast<unsigned long long>(run.attackRefusals),
                    static_cast<unsigned long long>(run.bytesSentByAttack));
    }
    if (before.rssKiB >= 0) {
        std::printf(
            "server_rss_before_kib %ld\nserver_rss_after_kib %ld\nserver_peak_rss_kib %ld\n"
            "server_threads_before %ld\nserver_threads_after %ld\n",
            before.rssKiB, after.rssKiB, after.peakKiB, before.threads, after.threads);
    }
}

int usage(const std::string& problem) {
    std::fprintf(stderr, "pelm-phones: %s\n", problem.c_str());
    std::fprintf(
        stderr,
        "usage: pelm-phones --host HOST:PORT --ca FILE [--phones N] [--seconds S] [--uploads PERCENT]\n"
        "                   [--server-pid PID] [--hold S] [--reconnect yes|no]\n"
        "                   [--attack slowloris|gzip|headers|silent]\n"
        "                   [--attackers N] [--body FILE]\n");
    return 2;
}

std::optional<Options> parse(int argc, char** argv, std::string& problem) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (i + 1 >= argc) {
            problem = word + " needs a value";
            return std::nullopt;
        }
        const std::string value = argv[++i];
        try {
            if (word == "--host") {
                const auto colon = value.rfind(':');
                if (colon == std::string::npos) throw std::invalid_argument("--host takes HOST:PORT");
                options.host = value.substr(0, colon);
                options.port = value.substr(colon + 1);
            } else if (word == "--ca")
                options.ca = value;
            else if (word == "--phones")
                options.phones = std::stoi(value);
            else if (word == "--seconds")
                options.seconds = std::stoi(value);
            else if (word == "--uploads")
                options.uploadPercent = std::stoi(value);
            else if (word == "--server-pid")
                options.serverPid = std::stoi(value);
            else if (word == "--hold")
                options.hold = std::stoi(value);
            else if (word == "--reconnect")
                options.reconnect = value == "yes";
            else if (word == "--attack")
                options.attack = value;
            else if (word == "--attackers")
                options.attackers = std::stoi(value);
            else if (word == "--body")
                options.body = value;
            else
                throw std::invalid_argument("unknown option " + word);
        } catch (const std::invalid_argument& e) {
            problem = e.what() == std::string("stoi") ? word + " takes a number" : e.what();
            return std::nullopt;
        }
    }
    if (options.port.empty() || options.ca.empty()) problem = "--host and --ca are needed";
    if (options.uploadPercent < 0 || options.uploadPercent > 100) problem = "--uploads takes 0 to 100";
    if (!options.attack.empty() && options.attack != "slowloris" && options.attack != "gzip" &&
        options.attack != "headers" && options.attack != "silent")
        problem = "--attack takes slowloris, gzip, headers or silent";
    if (options.attack == "gzip" && options.body.empty()) problem = "--attack gzip needs --body FILE";
    if (!problem.empty()) return std::nullopt;
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    std::string problem;
    const auto options = parse(argc, argv, problem);
    if (!options) return usage(problem);
    // Each phone and each silent connection takes a descriptor.
    rlimit descriptors{};
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0) {
        descriptors.rlim_cur = descriptors.rlim_max;
        setrlimit(RLIMIT_NOFILE, &descriptors);
    }
    Run run;
    run.options = *options;
    try {
        run.tls.load_verify_file(run.options.ca);
        run.tls.set_verify_mode(net::ssl::verify_peer);
        run.endpoints = tcp::resolver(run.io).resolve(run.options.host, run.options.port);
    } catch (const std::exception& e) {
        return usage(e.what());
    }
    run.phones.resize(static_cast<std::size_t>(run.options.phones));
    const auto before = serverFigures(run.options.serverPid);
    const auto start = Clock::now();
    run.end = start + std::chrono::seconds(run.options.seconds);
    for (int i = 0; i < run.options.phones; ++i) net::co_spawn(run.io, phone(run, i), net::detached);
    for (int i = 0; i < run.options.attackers; ++i) {
        if (run.options.attack == "slowloris") net::co_spawn(run.io, slowloris(run), net::detached);
        if (run.options.attack == "gzip") net::co_spawn(run.io, oversized(run, false), net::detached);
        if (run.options.attack == "headers") net::co_spawn(run.io, oversized(run, true), net::detached);
        if (run.options.attack == "silent") net::co_spawn(run.io, silent(run), net::detached);
    }
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::seconds(run.options.seconds + run.options.hold + 5));
        run.io.stop();  // whatever still hangs on a server that went away
    });
    stopper.detach();
    run.io.run();
    const double seconds = std::chrono::duration<double>(std::min(Clock::now(), run.end) - start).count();
    report(run, seconds, before, serverFigures(run.options.serverPid));
    return 0;
}
