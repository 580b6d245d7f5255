#pragma once

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include <pelm/model/json_binding.hpp>

struct sqlite3;

namespace pelm::server {

/// The server's data in one SQLite file (or in memory): apps by token, contents by id and beacon, and every
/// session upload as received. Safe to use from the server's handler threads.
class ContentStore {
  public:
    /// ":memory:" keeps everything in memory. Throws std::runtime_error when the file cannot be opened.
    explicit ContentStore(const std::string& path);
    ~ContentStore();
    ContentStore(const ContentStore&) = delete;
    ContentStore& operator=(const ContentStore&) = delete;

    /// Loads {"apps": [{"app_token", "app_config"}], "contents": [{"app_token", "beacon", "display_type",
    /// "content"}]}; entries with the same token or content id replace earlier ones. Throws
    /// std::invalid_argument naming the entry that is wrong.
    void seed(const JSON& data);

    std::optional<JSON> appConfig(const std::string& token) const;
    std::optional<JSON> content(const std::string& token, std::int64_t id) const;
    /// The first content of that display type for the beacon; the UUID is compared without regard to case.
    std::optional<JSON> contentForBeacon(const std::string& token, const std::string& uuid,
                                         const std::string& major, const std::string& minor,
                                         const std::string& displayType) const;

    /// Stores one upload; answers its id.
    std::int64_t storeSession(const std::string& token, const std::string& user, const JSON& session,
                              const JSON& beacon, const JSON& sessionLogs);
    /// Every stored upload, oldest first, in the nested form it was sent.
    JSON sessions() const;

  private:
    void execute(const char* sql) const;

    sqlite3* db_ = nullptr;
    mutable std::mutex mutex_;
};

}  // namespace pelm::server
