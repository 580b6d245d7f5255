#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include <pelm/model/json_binding.hpp>

namespace pelm::server {

/// The database failed a call or did not answer in time: nothing the request did wrong, so the client is
/// told to try again later.
class StoreError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The server's data: apps by token, contents by id and beacon, and every session upload as received. One
/// interface over two databases: a SQLite file for one machine, PostgreSQL for several servers sharing one.
/// Safe to use from many threads at once.
class ContentStore {
  public:
    enum class Open { CreateIfMissing, ExistingOnly };

    /// How long an app's configuration or a beacon's content, once read, is answered from memory. Every
    /// request reads them, so they are not read from the database each time; a change made in the database
    /// by other hands is served within this time. A seed through this store is served at once.
    static constexpr std::chrono::milliseconds kDefaultCacheLifetime{5000};
    /// While the database fails or does not answer, what was read from it before is answered for up to this
    /// long after it was read, so that phones keep getting their configuration and content through an
    /// outage. Past it a lookup fails like an upload.
    static constexpr std::chrono::hours kLongestStale{1};

    /// When what an answer was made of was read from the database: a cache of answers keeps one no longer
    /// than the oldest of its parts.
    using ReadAt = std::chrono::steady_clock::time_point;

    virtual ~ContentStore();
    ContentStore(const ContentStore&) = delete;
    ContentStore& operator=(const ContentStore&) = delete;

    /// Loads {"apps": [{"app_token", "app_config"}], "contents": [{"app_token", "beacon", "display_type",
    /// "content"}]}; entries with the same token or content id as an earlier seed's replace them. Throws
    /// std::invalid_argument naming the entry that is wrong, two contents of this seed with one id among
    /// them.
    void seed(const JSON& data);

    /// The lookups a phone makes on every start and beacon are kept in memory (see kDefaultCacheLifetime);
    /// `oldest`, when given, is lowered to the time the answer was read from the database.
    std::optional<JSON> appConfig(const std::string& token, ReadAt* oldest = nullptr) const;
    std::optional<JSON> content(const std::string& token, std::int64_t id) const;
    /// The first content of that display type for the beacon; the UUID is compared without regard to case.
    std::optional<JSON> contentForBeacon(const std::string& token, const std::string& uuid,
                                         const std::string& major, const std::string& minor,
                                         const std::string& displayType, ReadAt* oldest = nullptr) const;

    /// Stores one upload and answers its id. The same upload sent again (a phone that never heard the
    /// answer, to this server or to another sharing the database) is stored once and answers the same id.
    /// Throws std::runtime_error when the database does not take it.
    std::int64_t storeSession(const std::string& token, const std::string& user, const JSON& session,
                              const JSON& beacon, const JSON& sessionLogs);
    /// Every stored upload, oldest first, in the nested form it was sent.
    virtual JSON sessions() const = 0;
    /// Which database this is, for the operator: "SQLite file X", "PostgreSQL database D on H".
    virtual std::string description() const = 0;
    /// Which kind of database: "sqlite" or "postgresql".
    virtual const char* backend() const = 0;
    /// Why the last call to the database failed, while it fails; none once one succeeds again.
    std::optional<std::string> outage() const;
    /// Whether the last call to the database failed: an atomic read, for every request.
    bool failing() const { return failing_.load(std::memory_order_relaxed); }
    /// Counts seedings through this store: an answer made before one must not be served after it.
    std::uint64_t generation() const { return generation_.load(std::memory_order_acquire); }
    /// Calls made to the database, and how many of them failed, since the store was opened.
    struct Calls {
        std::uint64_t made = 0, failed = 0;
    };
    Calls calls() const { return {callsMade_.load(), callsFailed_.load()}; }

  protected:
    explicit ContentStore(std::chrono::milliseconds cacheLifetime);

    struct App {
        std::string token;
        std::string config;  // JSON text
    };
    struct Content {
        std::int64_t id = 0;
        std::string token, uuid, major, minor, displayType;
        std::string content;  // JSON text
    };
    using Text = std::optional<std::string>;
    /// One upload, its texts made storable (valid UTF-8, no NUL), what was not text left out.
    struct Upload {
        std::string token, user;
        Text appVersion, sdkVersion, operatingSystem, startTime, endTime;
        Text beaconUuid, beaconMajor, beaconMinor;
        std::vector<std::array<Text, 5>> lines;  // uuid, major, minor, entrance_time, exit_time
        std::string digest;                      // SHA-256 of all of the above, hex
    };

    virtual void writeSeed(const std::vector<App>& apps, const std::vector<Content>& contents) = 0;
    virtual std::optional<std::string> queryAppConfig(const std::string& token) const = 0;
    virtual std::optional<std::string> queryContent(const std::string& token, std::int64_t id) const = 0;
    virtual std::optional<std::string> queryContentForBeacon(const std::string& token,
                                                             const std::string& uuid,
                                                             const std::string& major,
                                                             const std::string& minor,
                                                             const std::string& displayType) const = 0;
    virtual std::int64_t writeUpload(const Upload& upload) = 0;

    /// The nested form of one stored upload, as sessions() answers it.
    static JSON uploadJSON(std::int64_t id, const Upload& upload, const std::string& receivedAt);
    /// What the store wrote itself; a database changed by other hands may hold anything.
    static JSON storedJSON(const std::string& text);

  private:
    // Every call to the database goes through here. While calls fail, one at a time still goes to the
    // database to learn whether it is back, and the others fail at once with the last error, so that no
    // thread queues on a database that does not answer.
    template <class Call>
    auto throughOutage(Call&& call) const -> decltype(call());
    void noteFailure(const StoreError& error) const;

    struct Cached {
        std::optional<JSON> value;
        std::chrono::steady_clock::time_point readAt;
    };
    std::optional<JSON> cached(const std::string& key,
                               const std::function<std::optional<std::string>()>& query,
                               ReadAt* oldest) const;

    std::chrono::milliseconds cacheLifetime_;
    // Bounded, since lookups of tokens and beacons that have nothing are kept too.
    static constexpr std::size_t kMaxCached = 10000;
    mutable std::shared_mutex cacheMutex_;
    mutable std::unordered_map<std::string, Cached> cache_;
    // Counts seedings, so that an answer read before one is not kept after it.
    std::atomic<std::uint64_t> generation_{0};

    mutable std::atomic<std::uint64_t> callsMade_{0}, callsFailed_{0};
    mutable std::atomic<bool> failing_{false};
    mutable std::atomic<bool> probing_{false};
    mutable std::mutex outageMutex_;
    mutable std::string lastError_;
};

}  // namespace pelm::server
