#pragma once

#include <pelm/export.hpp>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pelm::platform {

/// One HTTP request as the transport sends it: the URL carries the query, the body a POST form.
struct PELM_EXPORT HttpRequest {
    std::string method;  // "GET" or "POST"
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

/// The outcome of one exchange: a reply (any status), or a transport error and no reply.
struct PELM_EXPORT HttpReply {
    long status = 0;
    std::string body;
    /// Set when no complete reply arrived: connection, TLS, time-out, redirect or size failure.
    std::optional<std::string> error;
};

/// Sends requests off the main queue. Each `send` ends in exactly one call of `completion`, posted to the
/// main queue, whatever the network does, also when the transport is destroyed first.
class PELM_EXPORT HttpTransport {
  public:
    virtual ~HttpTransport() = default;
    virtual void send(HttpRequest request, std::function<void(HttpReply)> completion) = 0;
};

}  // namespace pelm::platform
