#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "pelm_server/content_store.hpp"
#include "pelm_server/pelm_server.hpp"
#include "pelm_server/request_handler.hpp"

namespace pelm::testing {

/// What a test can make the server do for one path instead of answering properly.
struct ServerFault {
    std::optional<int> status;
    std::chrono::milliseconds delay{0};   // the proper answer (or the one below), this much later
    std::optional<std::string> body;      // replaces the reply body ("" for an empty one)
    bool dropConnection = false;          // send the head, then close without the promised body
    std::optional<std::string> location;  // a Location header, for redirects
};

/// One request as it arrived.
struct ReceivedRequest {
    std::string method;
    std::string path;
    std::string target;  // path and raw query, as sent
    std::string contentType;
    std::string expect;
    std::string body;
    int remotePort = 0;
};

/// In front of the server's own handler: keeps the last requests that arrived and, for a path a test names,
/// answers in the server's place or later than it.
class FaultInjector : public server::FrontHandler {
  public:
    explicit FaultInjector(std::size_t keep) : keep_(keep) {}
    void passTo(server::RequestHandler& own) override { own_ = &own; }

    void handle(server::HttpRequest& request, server::Responder respond) override {
        record(request);
        const auto fault = faultFor(std::string(request.path()));
        if (fault && (fault->dropConnection || fault->status || fault->body)) {
            server::Reply reply;
            reply.status = fault->status.value_or(200);
            reply.body = server::sharedText(fault->body.value_or(R"({"status":"successful"})"));
            reply.location = fault->location;
            reply.delay = fault->delay;
            reply.dropConnection = fault->dropConnection;
            return respond(std::move(reply));
        }
        if (fault && fault->delay.count() > 0)
            return own_->handle(request,
                                server::Responder(std::make_shared<Later>(std::move(respond), fault->delay)));
        own_->handle(request, std::move(respond));
    }

    void setFault(const std::string& path, ServerFault fault) {
        std::lock_guard lock(mutex_);
        faults_[path] = std::move(fault);
    }
    void clearFaults() {
        std::lock_guard lock(mutex_);
        faults_.clear();
    }
    std::vector<ReceivedRequest> requests() const {
        std::lock_guard lock(mutex_);
        return {requests_.begin(), requests_.end()};
    }
    /// Distinct client connections seen so far (each has its own source port).
    std::size_t connectionCount() const {
        std::lock_guard lock(mutex_);
        return connections_.size();
    }

  private:
    // The server's own answer, held back.
    struct Later : server::ReplySink {
        Later(server::Responder respond, std::chrono::milliseconds delay)
            : respond(std::move(respond)), delay(delay) {}
        void reply(server::Reply reply) override {
            reply.delay = delay;
            respond(std::move(reply));
        }
        server::Responder respond;
        std::chrono::milliseconds delay;
    };

    void record(const server::HttpRequest& request) {
        ReceivedRequest received{std::string(request.method), std::string(request.path()),
                                 std::string(request.target), std::string(request.contentType),
                                 std::string(request.expect), request.body,
                                 request.remotePort};
        std::lock_guard lock(mutex_);
        connections_.insert(request.remotePort);
        requests_.push_back(std::move(received));
        if (requests_.size() > keep_) requests_.pop_front();
    }
    std::optional<ServerFault> faultFor(const std::string& path) const {
        std::lock_guard lock(mutex_);
        if (const auto found = faults_.find(path); found != faults_.end()) return found->second;
        return std::nullopt;
    }

    server::RequestHandler* own_ = nullptr;
    const std::size_t keep_;
    mutable std::mutex mutex_;
    std::map<std::string, ServerFault> faults_;
    std::deque<ReceivedRequest> requests_;
    std::set<int> connections_;
};

/// A PelmServer with a FaultInjector in front, which keeps the last `keep` requests.
class TestServer {
  public:
    explicit TestServer(server::PelmServer::Options options, std::size_t keep = 10000)
        : injector_(keep), server_(inFront(std::move(options), injector_)) {}

    server::PelmServer& server() { return server_; }
    server::ContentStore& store() { return server_.store(); }
    void start() { server_.start(); }
    void stop() { server_.stop(); }
    bool stopWithin(std::chrono::milliseconds most) { return server_.stopWithin(most); }
    int port() const { return server_.port(); }
    std::string host() const { return server_.host(); }
    std::optional<std::filesystem::path> caFile() const { return server_.caFile(); }
    std::string metricsText() { return server_.metricsText(); }

    void setFault(const std::string& path, ServerFault fault) { injector_.setFault(path, std::move(fault)); }
    void clearFaults() { injector_.clearFaults(); }
    std::vector<ReceivedRequest> requests() const { return injector_.requests(); }
    std::size_t connectionCount() const { return injector_.connectionCount(); }

  private:
    static server::PelmServer::Options inFront(server::PelmServer::Options options, FaultInjector& injector) {
        options.front = &injector;
        return options;
    }

    FaultInjector injector_;  // declared first: it outlives the server
    server::PelmServer server_;
};

}  // namespace pelm::testing
