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
};

/// The five endpoints over a store, apart from any connection: a method, a target and a body in, an answer
/// out. Runs on the server's store threads, since a store call may wait on its database.
class ApiRoutes {
  public:
    using Log = std::function<void(const std::string& line)>;
    ApiRoutes(ContentStore& store, Log log) : store_(store), log_(std::move(log)) {}

    ApiAnswer answer(std::string_view method, std::string_view target, const std::string& body) const;
    /// The answer when everything it needs is in memory (a lookup of a known beacon, say), without waiting on
    /// the database; none otherwise.
    std::optional<ApiAnswer> answerFromMemory(std::string_view method, std::string_view target) const;

    /// The JSON error envelope.
    static ApiAnswer error(int status, const std::string& message);

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
