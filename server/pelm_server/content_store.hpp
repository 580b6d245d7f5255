#pragma once

#include <condition_variable>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <pelm/model/json_binding.hpp>

struct sqlite3;

namespace pelm::server {

/// The server's data in one SQLite file (or in memory): apps by token, contents by id and beacon, and every
/// session upload as received. Safe to use from the server's handler threads.
class ContentStore {
  public:
    enum class Open { CreateIfMissing, ExistingOnly };
    /// ":memory:" keeps everything in memory. Throws std::runtime_error when the file cannot be opened, or
    /// with ExistingOnly does not exist (nothing is created then).
    explicit ContentStore(const std::string& path, Open open = Open::CreateIfMissing);
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
    struct PendingUpload {
        const std::string& token;
        const std::string& user;
        const JSON& session;
        const JSON& beacon;
        const JSON& sessionLogs;
        std::int64_t id = 0;
        std::exception_ptr error;
        bool done = false;
    };
    struct UploadStatements;
    void writeUploads(const std::vector<PendingUpload*>& batch);
    std::int64_t insertUpload(UploadStatements& statements, const PendingUpload& upload);
    void execute(const char* sql) const;
    std::optional<JSON> queryAppConfig(const std::string& token) const;
    std::optional<JSON> queryContentForBeacon(const std::string& token, const std::string& uuid,
                                              const std::string& major, const std::string& minor,
                                              const std::string& displayType) const;

    sqlite3* db_ = nullptr;
    mutable std::mutex mutex_;  // the connection
    std::mutex uploadsMutex_;
    std::condition_variable uploadWritten_;
    std::vector<PendingUpload*> queuedUploads_;
    bool writingUploads_ = false;
    // Apps and contents change only by seeding, and every request reads them: they are read from memory,
    // concurrently, once looked up. Bounded, since lookups of beacons that have no content are kept too.
    static constexpr std::size_t kMaxCached = 10000;
    mutable std::shared_mutex cacheMutex_;
    mutable std::unordered_map<std::string, JSON> appConfigs_;
    mutable std::unordered_map<std::string, std::optional<JSON>> contents_;
    // Counts seedings, so that an answer read before one is not kept after it.
    std::uint64_t generation_ = 0;
};

}  // namespace pelm::server
