#pragma once

#include <mutex>
#include <vector>

#include "pelm_server/content_store.hpp"

struct pg_conn;

namespace pelm::server {

/// The store in a PostgreSQL database, which several servers may share: each keeps a few connections of its
/// own, and an upload is one statement, so it is stored whole or not at all, once, whichever server took it.
class PostgresStore final : public ContentStore {
  public:
    /// Connects and makes the tables when they are missing. Throws std::runtime_error naming the cause when
    /// the database cannot be reached.
    PostgresStore(std::string address, std::chrono::milliseconds cacheLifetime);
    /// The longest a call waits for a connection to be made, and for one statement's answer. The statement
    /// deadline is also the database's own statement_timeout.
    static constexpr std::chrono::seconds kConnectDeadline{3};
    static constexpr std::chrono::milliseconds kStatementDeadline{5000};
    ~PostgresStore() override;

    JSON sessions() const override;
    std::string description() const override { return description_; }
    const char* backend() const override { return "postgresql"; }

  private:
    class Lease;
    class Result;

    void writeSeed(const std::vector<App>& apps, const std::vector<Content>& contents) override;
    std::optional<std::string> queryAppConfig(const std::string& token) const override;
    std::optional<std::string> queryContent(const std::string& token, std::int64_t id) const override;
    std::optional<std::string> queryContentForBeacon(const std::string& token, const std::string& uuid,
                                                     const std::string& major, const std::string& minor,
                                                     const std::string& displayType) const override;
    std::int64_t writeUpload(const Upload& upload) override;

    std::optional<std::string> firstText(const char* sql, const std::vector<Text>& parameters) const;
    template <class Call>
    auto withConnection(Call&& call) const -> decltype(call(nullptr));
    void dropIdleConnections() const;
    pg_conn* connect() const;

    std::string address_;
    std::string description_;
    mutable std::mutex poolMutex_;
    mutable std::vector<pg_conn*> idle_;
};

}  // namespace pelm::server
