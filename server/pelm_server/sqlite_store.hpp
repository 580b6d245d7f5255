#pragma once

#include <condition_variable>
#include <exception>
#include <mutex>
#include <vector>

#include "pelm_server/content_store.hpp"

struct sqlite3;

namespace pelm::server {

/// The store in one SQLite file (or in memory), for a server on one machine.
class SqliteStore final : public ContentStore {
  public:
    /// Throws std::runtime_error when the file cannot be opened, or with ExistingOnly does not exist.
    SqliteStore(const std::string& path, Open open, std::chrono::milliseconds cacheLifetime);
    ~SqliteStore() override;

    JSON sessions() const override;
    std::string description() const override { return "SQLite file " + path_; }
    const char* backend() const override { return "sqlite"; }

  private:
    struct PendingUpload {
        const Upload& upload;
        std::int64_t id = 0;
        std::exception_ptr error;
        bool done = false;
    };
    struct UploadStatements;

    void writeSeed(const std::vector<App>& apps, const std::vector<Content>& contents) override;
    std::optional<std::string> queryAppConfig(const std::string& token) const override;
    std::optional<std::string> queryContent(const std::string& token, std::int64_t id) const override;
    std::optional<std::string> queryContentForBeacon(const std::string& token, const std::string& uuid,
                                                     const std::string& major, const std::string& minor,
                                                     const std::string& displayType) const override;
    std::int64_t writeUpload(const Upload& upload) override;

    void writeUploads(const std::vector<PendingUpload*>& batch);
    std::int64_t insertUpload(UploadStatements& statements, const Upload& upload);
    void execute(const char* sql) const;
    void addDigestColumn();

    std::string path_;
    sqlite3* db_ = nullptr;
    mutable std::mutex mutex_;  // the connection
    std::mutex uploadsMutex_;
    std::condition_variable uploadWritten_;
    std::vector<PendingUpload*> queuedUploads_;
    bool writingUploads_ = false;
};

}  // namespace pelm::server
