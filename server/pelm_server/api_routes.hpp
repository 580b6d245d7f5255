#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "pelm_server/answer_cache.hpp"
#include "pelm_server/content_store.hpp"
#include "pelm_server/request_handler.hpp"

namespace pelm::server {

/// The five endpoints over a store, apart from any connection: a method, a target and a body in, a reply
/// out. `answer` runs on the server's store threads, since a store call may wait on its database; what it
/// answers to a lookup is kept whole, and `answerFromMemory` serves it from the event loop.
class ApiRoutes {
  public:
    /// A line for the operator, and its cause in a few fixed words (by which repeated lines are counted).
    using Log = std::function<void(const std::string& cause, const std::string& line)>;
    /// What a client whose request met a database that is away is told to wait before it tries again.
    static constexpr int kRetryAfterSeconds = 30;
    ApiRoutes(ContentStore& store, Log log,
              std::chrono::milliseconds cacheLifetime = ContentStore::kDefaultCacheLifetime)
        : store_(store), log_(std::move(log)), answers_(store, cacheLifetime) {}

    Reply answer(std::string_view method, std::string_view target, const std::string& body);
    /// The kept answer to a lookup made before, without waiting on the database; none when there is none
    /// to serve (then `answer` must make it).
    std::optional<Reply> answerFromMemory(std::string_view method, std::string_view target) const;

    /// The JSON error envelope.
    static Reply error(int status, const std::string& message);
    /// 503 and Retry-After: the request was fine, the database was not.
    static Reply unavailable(const std::string& message);

  private:
    using ReadAt = ContentStore::ReadAt;
    // A lookup passes `oldest`, which the store lowers to when the data was read: such an answer is kept.
    Reply route(std::string_view method, std::string_view path, std::string_view query,
                const std::string& body, ReadAt*& oldest) const;
    Reply status(const JSON& query) const;
    Reply appConfig(const JSON& query, ReadAt* oldest) const;
    Reply content(const JSON& query, std::string_view id) const;
    Reply contentForHardware(const JSON& query, ReadAt* oldest) const;
    Reply upload(const std::string& body) const;

    ContentStore& store_;
    Log log_;
    AnswerCache answers_;
};

}  // namespace pelm::server
