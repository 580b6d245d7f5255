#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "pelm_server/content_store.hpp"

namespace pelm::server {

/// One answer of the API: a status and its JSON body.
struct ApiAnswer {
    int status = 200;
    std::string body;
    /// Seconds after which to send it again (Retry-After), for an answer that says "not now".
    std::optional<int> retryAfter;
};

/// The five endpoints over a store, apart from any connection: a method, a target and a body in, an answer
/// out. Runs on the server's store threads, since a store call may wait on its database.
class ApiRoutes {
  public:
    /// A line for the operator, and its cause in a few fixed words (by which repeated lines are counted).
    using Log = std::function<void(const std::string& cause, const std::string& line)>;
    /// What a client whose request met a database that is away is told to wait before it tries again.
    static constexpr int kRetryAfterSeconds = 30;
    ApiRoutes(ContentStore& store, Log log) : store_(store), log_(std::move(log)) {}

    ApiAnswer answer(std::string_view method, std::string_view target, const std::string& body) const;
    /// The answer when everything it needs is in memory (a lookup of a known beacon, say), without waiting on
    /// the database; none otherwise.
    std::optional<ApiAnswer> answerFromMemory(std::string_view method, std::string_view target) const;

    /// The JSON error envelope.
    static ApiAnswer error(int status, const std::string& message);
    /// 503 and Retry-After: the request was fine, the database was not.
    static ApiAnswer unavailable(const std::string& message);

  private:
    ApiAnswer route(std::string_view method, std::string_view path, std::string_view query,
                    const std::string& body) const;
    ApiAnswer status(const JSON& query) const;
    ApiAnswer appConfig(const JSON& query) const;
    ApiAnswer content(const JSON& query, std::string_view id) const;
    ApiAnswer contentForHardware(const JSON& query) const;
    ApiAnswer upload(const std::string& body) const;

    ContentStore& store_;
    Log log_;
};

}  // namespace pelm::server
