#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace pelm::server {

/// A body shared between the cache that keeps it and every connection that sends it: an answer served a
/// thousand times a second is made once and copied by no one.
using SharedText = std::shared_ptr<const std::string>;

inline SharedText sharedText(std::string text) {
    return std::make_shared<const std::string>(std::move(text));
}

/// One request, read whole. The views point into the connection's own buffers and last only while
/// `RequestHandler::handle` runs: a handler that answers later keeps a copy of what it needs.
struct HttpRequest {
    std::string_view method;
    std::string_view target;  // path and raw query, as sent
    std::string_view contentType;
    std::string_view expect;
    std::string body;
    std::string_view remoteAddress;
    int remotePort = 0;

    /// The target without its query.
    std::string_view path() const { return target.substr(0, target.find('?')); }
};

/// What is sent back for one request: a body (JSON, but for the metrics) with its status.
struct Reply {
    int status = 200;
    SharedText body;
    const char* contentType = "application/json; charset=utf-8";
    std::optional<std::string> location;
    std::optional<int> retryAfter;  // seconds, for a 503
    /// Sent after this long, holding no thread: what a handler imitating a slow server asks for.
    std::chrono::milliseconds delay{0};
    /// Send the head, then close without the promised body: what a handler imitating a broken server asks
    /// for.
    bool dropConnection = false;

    std::string_view text() const { return body ? std::string_view(*body) : std::string_view(); }
};

/// Where a reply goes: the connection that read the request.
class ReplySink {
  public:
    virtual ~ReplySink() = default;
    virtual void reply(Reply reply) = 0;
};

/// Answers one request, once, from any thread. A responder that is dropped unanswered leaves its connection
/// to the deadlines; a handler answers every request it takes.
class Responder {
  public:
    explicit Responder(std::shared_ptr<ReplySink> sink) : sink_(std::move(sink)) {}
    void operator()(Reply reply) {
        if (auto sink = std::exchange(sink_, nullptr)) sink->reply(std::move(reply));
    }
    bool answered() const { return !sink_; }

  private:
    std::shared_ptr<ReplySink> sink_;
};

/// What answers the server's requests. The server's own answers the API; a test may put one in front of it
/// that records what arrives or answers in its place.
class RequestHandler {
  public:
    virtual ~RequestHandler() = default;
    virtual void handle(HttpRequest& request, Responder respond) = 0;
};

/// A handler put in front of the server's own (PelmServer::Options::front), given the server's own to pass
/// requests on to before the server starts.
class FrontHandler : public RequestHandler {
  public:
    virtual void passTo(RequestHandler& own) = 0;
};

}  // namespace pelm::server
