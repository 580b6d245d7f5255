#pragma once

#include <pelm/export.hpp>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pelm::platform {

/// One HTTP request as the transport sends it: the URL carries the query, the body a POST form.
struct HttpRequest {
    /// "GET" or "POST".
    std::string method;  // "GET" or "POST"
    /// The whole URL, query included.
    std::string url;
    /// Header names and values, in order.
    std::vector<std::pair<std::string, std::string>> headers;
    /// The body to send; empty for none.
    std::string body;
};

/// The outcome of one exchange: a reply (any status), or a transport error and no reply.
struct HttpReply {
    /// The HTTP status code; 0 without a reply.
    long status = 0;
    /// The body as received.
    std::string body;
    /// Set when no complete reply arrived: connection, TLS, time-out, redirect or size failure.
    std::optional<std::string> error;
    /// With `error`, how far the call got: a server that answered with a reply that could not be taken (too
    /// large, cut short, a redirect that was refused) was reached; a request too large to make never left.
    enum class Failure {
        noConnection,  ///< no reply came: connection, TLS or time-out
        badReply,      ///< a reply came that could not be taken
        notSent,       ///< the request could not be made
    };
    Failure failure = Failure::noConnection;  ///< How far a failed call got; see Failure.
};

/// Sends requests off the main queue. Each `send` ends in exactly one call of `completion`, posted to the
/// main queue, whatever the network does, also when the transport is destroyed first.
class PELM_EXPORT HttpTransport {
  public:
    virtual ~HttpTransport() = default;
    /// Sends `request` off the main queue and hands its reply or failure to `completion` once.
    virtual void send(HttpRequest request, std::function<void(HttpReply)> completion) = 0;
};

}  // namespace pelm::platform
