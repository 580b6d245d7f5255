#include "pelm_server/postgres_store.hpp"

#include <libpq-fe.h>

#include <poll.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <string_view>
#include <thread>

#include <pelm/model/json_text.hpp>

namespace pelm::server {
namespace {

// Servers starting together against a new database would race to make the same tables; the first takes this
// lock and the others find them made.
constexpr const char* kSchema = R"sql(
BEGIN;
SELECT pg_advisory_xact_lock(7365290117);
CREATE TABLE IF NOT EXISTS apps (token TEXT PRIMARY KEY, config TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS contents (
  id BIGINT PRIMARY KEY, token TEXT NOT NULL, uuid TEXT NOT NULL, major TEXT NOT NULL, minor TEXT NOT NULL,
  display_type TEXT NOT NULL, content TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS contents_by_beacon ON contents (token, upper(uuid), major, minor, display_type);
CREATE TABLE IF NOT EXISTS sessions (
  id BIGSERIAL PRIMARY KEY, token TEXT NOT NULL, visitor TEXT NOT NULL,
  app_version TEXT, sdk_version TEXT, operating_system TEXT, start_time TEXT, end_time TEXT,
  beacon_uuid TEXT, beacon_major TEXT, beacon_minor TEXT, digest TEXT UNIQUE,
  received_at TEXT NOT NULL DEFAULT to_char(now() AT TIME ZONE 'UTC', 'YYYY-MM-DD HH24:MI:SS'));
CREATE TABLE IF NOT EXISTS session_logs (
  session_id BIGINT NOT NULL REFERENCES sessions (id), position INTEGER NOT NULL,
  uuid TEXT, major TEXT, minor TEXT, entrance_time TEXT, exit_time TEXT, PRIMARY KEY (session_id, position));
COMMIT;
)sql";

// The session and its lines in one statement: stored whole or not at all, and a second arrival of the same
// upload (same digest) stores nothing.
constexpr const char* kInsertUpload = R"sql(
WITH s AS (
  INSERT INTO sessions (token, visitor, app_version, sdk_version, operating_system, start_time, end_time,
                        beacon_uuid, beacon_major, beacon_minor, digest)
  VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, $11) ON CONFLICT (digest) DO NOTHING RETURNING id),
l AS (
  INSERT INTO session_logs (session_id, position, uuid, major, minor, entrance_time, exit_time)
  SELECT s.id, x.n - 1, x.uuid, x.major, x.minor, x.entrance_time, x.exit_time FROM s,
    ROWS FROM (json_to_recordset($12::json)
               AS (uuid TEXT, major TEXT, minor TEXT, entrance_time TEXT, exit_time TEXT))
    WITH ORDINALITY AS x (uuid, major, minor, entrance_time, exit_time, n))
SELECT id FROM s
)sql";

// libpq's messages span lines (a cause, then a hint); the operator gets them on one.
std::string oneLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    std::string line;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\n') {
            line += text[at];
            continue;
        }
        line += "; ";
        while (at + 1 < text.size() && (text[at + 1] == '\t' || text[at + 1] == ' ')) ++at;
    }
    return line;
}

// A warning of the database's, on one line of the server's log.
void logNotice(void*, const char* message) {
    std::fprintf(stderr, "pelm-server: postgresql: %s\n", oneLine(message).c_str());
}

// Waits until the connection's socket is ready for `events` or `deadline` passes; false then.
bool waitForSocket(pg_conn* connection, short events, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd socket{PQsocket(connection), events, 0};
        const int ready = ::poll(&socket, 1, static_cast<int>(std::min<std::int64_t>(left.count(), 1000)));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return true;  // let libpq meet the error and name it
    }
}

// Cancels the statement a connection that gave up on waits for, so that the database does not go on with
// it. Sending the cancel waits on the database too, so it is sent from a thread of its own, and only a few
// such threads are ever waiting: a database that answers nothing gets no more.
void cancelInBackground(pg_conn* connection) {
    static std::atomic<int> sending{0};
    constexpr int kMostSending = 4;
    if (sending.fetch_add(1) >= kMostSending) {
        sending.fetch_sub(1);
        return;
    }
    PGcancel* cancel = PQgetCancel(connection);
    if (cancel == nullptr) {
        sending.fetch_sub(1);
        return;
    }
    std::thread([cancel] {
        char ignored[256];
        PQcancel(cancel, ignored, sizeof ignored);
        PQfreeCancel(cancel);
        sending.fetch_sub(1);
    }).detach();
}

}  // namespace

// One statement's answers, cleared on every path out. The statement is sent and its answer awaited with a
// deadline: a database that stopped answering (a stalled disk, a network cut, a stopped process) costs a
// caller that long, never more. A failed or timed-out statement throws a StoreError with PostgreSQL's own
// words; the connection is then left broken, so that the pool drops it.
class PostgresStore::Result {
  public:
    Result(pg_conn* connection, const char* sql, const std::vector<Text>& parameters)
        : connection_(connection) {
        const auto deadline = std::chrono::steady_clock::now() + kStatementDeadline;
        std::vector<const char*> values;
        for (const auto& parameter : parameters) values.push_back(parameter ? parameter->c_str() : nullptr);
        const int sent = parameters.empty()
                             ? PQsendQuery(connection, sql)
                             : PQsendQueryParams(connection, sql, static_cast<int>(values.size()), nullptr,
                                                 values.data(), nullptr, nullptr, 0);
        if (sent != 1) fail();
        flush(deadline);
        collect(deadline);
    }
    ~Result() { PQclear(result_); }
    Result(const Result&) = delete;
    Result& operator=(const Result&) = delete;

    int rows() const { return PQntuples(result_); }
    std::string text(int row, int column) const { return PQgetvalue(result_, row, column); }
    Text optionalText(int row, int column) const {
        if (PQgetisnull(result_, row, column)) return std::nullopt;
        return text(row, column);
    }
    std::int64_t integer(int row, int column) const {
        const auto digits = text(row, column);
        std::int64_t value = 0;
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error != std::errc() || end != digits.data() + digits.size())
            throw StoreError("postgresql: \"" + digits + "\" where a whole number was expected");
        return value;
    }

  private:
    [[noreturn]] void fail() {
        PQclear(result_);
        throw StoreError("postgresql: " + oneLine(PQerrorMessage(connection_)));
    }
    [[noreturn]] void timedOut() {
        cancelInBackground(connection_);
        // A connection with a statement still under way cannot take another: the pool must drop it.
        PQclear(result_);
        result_ = nullptr;
        throw StoreError("postgresql: no answer within " + std::to_string(kStatementDeadline.count()) +
                         " ms; the statement was cancelled");
    }
    void flush(std::chrono::steady_clock::time_point deadline) {
        for (;;) {
            const int left = PQflush(connection_);
            if (left == 0) return;
            if (left < 0) fail();
            if (!waitForSocket(connection_, POLLIN | POLLOUT, deadline)) timedOut();
            if (PQconsumeInput(connection_) != 1) fail();
        }
    }
    // Every result of the statement (a script gives one a statement); the last one is kept, and the first
    // that failed is thrown.
    void collect(std::chrono::steady_clock::time_point deadline) {
        std::optional<std::string> failure;
        for (;;) {
            while (PQisBusy(connection_) == 1) {
                if (!waitForSocket(connection_, POLLIN, deadline)) timedOut();
                if (PQconsumeInput(connection_) != 1) fail();
            }
            PGresult* next = PQgetResult(connection_);
            if (next == nullptr) break;
            const auto status = PQresultStatus(next);
            if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && !failure)
                failure = oneLine(PQresultErrorMessage(next));
            PQclear(result_);
            result_ = next;
        }
        if (!failure) return;
        PQclear(result_);
        throw StoreError("postgresql: " + *failure);
    }

    pg_conn* connection_;
    PGresult* result_ = nullptr;
};

// A connection of the pool for one call; one that broke meanwhile is closed instead of going back.
class PostgresStore::Lease {
  public:
    explicit Lease(const PostgresStore& store) : store_(store) {
        {
            std::lock_guard lock(store_.poolMutex_);
            if (!store_.idle_.empty()) {
                connection_ = store_.idle_.back();
                store_.idle_.pop_back();
            }
        }
        if (connection_ != nullptr && PQstatus(connection_) != CONNECTION_OK) {
            PQfinish(connection_);
            connection_ = nullptr;
        }
        if (connection_ == nullptr) connection_ = store_.connect();
    }
    ~Lease() {
        if (PQstatus(connection_) != CONNECTION_OK || PQtransactionStatus(connection_) != PQTRANS_IDLE) {
            PQfinish(connection_);
            return;
        }
        std::lock_guard lock(store_.poolMutex_);
        store_.idle_.push_back(connection_);
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    pg_conn* get() const { return connection_; }

  private:
    const PostgresStore& store_;
    pg_conn* connection_ = nullptr;
};

PostgresStore::PostgresStore(std::string address, std::chrono::milliseconds cacheLifetime)
    : ContentStore(cacheLifetime), address_(std::move(address)) {
    Lease lease(*this);
    auto* connection = lease.get();
    const auto name = [&](const char* value) {
        return value != nullptr ? std::string(value) : std::string();
    };
    description_ = "PostgreSQL database " + name(PQdb(connection)) + " on " + name(PQhost(connection)) + ":" +
                   name(PQport(connection));
    try {
        Result(connection, kSchema, {});
    } catch (const StoreError& e) {
        throw StoreError(std::string("postgresql: cannot make the tables: ") +
                         (e.what() + std::string_view("postgresql: ").size()));
    }
}

PostgresStore::~PostgresStore() {
    for (auto* connection : idle_) PQfinish(connection);
}

// libpq's defaults wait on a silent database for ever; these bound every wait. The URI's own settings come
// after them and win.
pg_conn* PostgresStore::connect() const {
    const std::string connectTimeout = std::to_string(kConnectDeadline.count());
    const std::string options = "-c statement_timeout=" + std::to_string(kStatementDeadline.count()) +
                                " -c client_min_messages=warning";
    const char* keys[] = {"connect_timeout",
                          "keepalives",
                          "keepalives_idle",
                          "keepalives_interval",
                          "keepalives_count",
                          "tcp_user_timeout",
                          "options",
                          "dbname",
                          nullptr};
    const char* values[] = {connectTimeout.c_str(), "1",    "10", "5", "3", "15000", options.c_str(),
                            address_.c_str(),       nullptr};
    auto* connection = PQconnectdbParams(keys, values, 1);
    if (PQstatus(connection) != CONNECTION_OK) {
        const std::string message = oneLine(PQerrorMessage(connection));
        PQfinish(connection);
        throw StoreError("cannot connect to PostgreSQL: " + message);
    }
    PQsetNoticeProcessor(connection, &logNotice, nullptr);
    // Statements are sent without waiting for the socket to take them, so that their deadline holds.
    PQsetnonblocking(connection, 1);
    // Texts are UTF-8 whatever the database's own encoding.
    PQsetClientEncoding(connection, "UTF8");
    return connection;
}

// A pooled connection may have been cut while it waited (the database restarted, its backend killed): a call
// that finds its connection broken is made once more on a new one, and the pool's other idle connections,
// most likely cut by the same cause, are let go. Each call here may be made twice: an upload is known by its
// digest. A statement that timed out is not made again: the database did not answer.
template <class Call>
auto PostgresStore::withConnection(Call&& call) const -> decltype(call(nullptr)) {
    for (int attempt = 0;; ++attempt) {
        Lease lease(*this);
        try {
            return call(lease.get());
        } catch (const StoreError&) {
            if (attempt > 0 || PQstatus(lease.get()) != CONNECTION_BAD) throw;
        }
        dropIdleConnections();
    }
}

void PostgresStore::dropIdleConnections() const {
    std::vector<pg_conn*> idle;
    {
        std::lock_guard lock(poolMutex_);
        idle.swap(idle_);
    }
    for (auto* connection : idle) PQfinish(connection);
}

std::optional<std::string> PostgresStore::firstText(const char* sql,
                                                    const std::vector<Text>& parameters) const {
    return withConnection([&](pg_conn* connection) -> std::optional<std::string> {
        const Result result(connection, sql, parameters);
        if (result.rows() == 0) return std::nullopt;
        return result.text(0, 0);
    });
}

void PostgresStore::writeSeed(const std::vector<App>& apps, const std::vector<Content>& contents) {
    Lease lease(*this);
    auto* connection = lease.get();
    Result(connection, "BEGIN", {});
    try {
        for (const auto& app : apps) {
            Result(connection,
                   "INSERT INTO apps (token, config) VALUES ($1, $2) "
                   "ON CONFLICT (token) DO UPDATE SET config = EXCLUDED.config",
                   {app.token, app.config});
        }
        for (const auto& row : contents) {
            Result(
                connection,
                "INSERT INTO contents (id, token, uuid, major, minor, display_type, content) "
                "VALUES ($1, $2, $3, $4, $5, $6, $7) ON CONFLICT (id) DO UPDATE SET token = EXCLUDED.token, "
                "uuid = EXCLUDED.uuid, major = EXCLUDED.major, minor = EXCLUDED.minor, "
                "display_type = EXCLUDED.display_type, content = EXCLUDED.content",
                {std::to_string(row.id), row.token, row.uuid, row.major, row.minor, row.displayType,
                 row.content});
        }
        Result(connection, "COMMIT", {});
    } catch (...) {
        try {
            Result(connection, "ROLLBACK", {});
        } catch (const StoreError&) {
            // The connection is dropped by the pool, and the transaction with it.
        }
        throw;
    }
}

std::optional<std::string> PostgresStore::queryAppConfig(const std::string& token) const {
    return firstText("SELECT config FROM apps WHERE token = $1", {token});
}

std::optional<std::string> PostgresStore::queryContent(const std::string& token, std::int64_t id) const {
    return firstText("SELECT content FROM contents WHERE token = $1 AND id = $2",
                     {token, std::to_string(id)});
}

std::optional<std::string> PostgresStore::queryContentForBeacon(const std::string& token,
                                                                const std::string& uuid,
                                                                const std::string& major,
                                                                const std::string& minor,
                                                                const std::string& displayType) const {
    return firstText(
        "SELECT content FROM contents WHERE token = $1 AND upper(uuid) = upper($2) AND major = $3 AND minor "
        "= $4 "
        "AND display_type = $5 ORDER BY id LIMIT 1",
        {token, uuid, major, minor, displayType});
}

std::int64_t PostgresStore::writeUpload(const Upload& upload) {
    JSON lines = JSON::array();
    for (const auto& line : upload.lines) {
        JSON entry = JSON::object();
        static constexpr const char* kColumns[] = {"uuid", "major", "minor", "entrance_time", "exit_time"};
        for (std::size_t column = 0; column < line.size(); ++column) {
            if (line[column]) entry[kColumns[column]] = *line[column];
        }
        lines.push_back(std::move(entry));
    }
    const auto linesText = jsonText(lines);
    return withConnection([&](pg_conn* connection) {
        const Result stored(connection, kInsertUpload,
                            {upload.token, upload.user, upload.appVersion, upload.sdkVersion,
                             upload.operatingSystem, upload.startTime, upload.endTime, upload.beaconUuid,
                             upload.beaconMajor, upload.beaconMinor, upload.digest, linesText});
        if (stored.rows() == 1) return stored.integer(0, 0);
        // Sent before, perhaps to another server: the first one stands.
        const Result earlier(connection, "SELECT id FROM sessions WHERE digest = $1", {upload.digest});
        if (earlier.rows() != 1) throw StoreError("postgresql: an upload was neither stored nor found");
        return earlier.integer(0, 0);
    });
}

JSON PostgresStore::sessions() const {
    Lease lease(*this);
    const Result sessions(
        lease.get(),
        "SELECT id, token, visitor, app_version, sdk_version, operating_system, start_time, "
        "end_time, beacon_uuid, beacon_major, beacon_minor, received_at FROM sessions ORDER BY id",
        {});
    const Result lines(lease.get(),
                       "SELECT session_id, uuid, major, minor, entrance_time, exit_time FROM session_logs "
                       "ORDER BY session_id, position",
                       {});
    std::map<std::int64_t, std::vector<std::array<Text, 5>>> linesOf;
    for (int row = 0; row < lines.rows(); ++row) {
        linesOf[lines.integer(row, 0)].push_back({lines.optionalText(row, 1), lines.optionalText(row, 2),
                                                  lines.optionalText(row, 3), lines.optionalText(row, 4),
                                                  lines.optionalText(row, 5)});
    }
    JSON result = JSON::array();
    for (int row = 0; row < sessions.rows(); ++row) {
        const auto id = sessions.integer(row, 0);
        Upload upload{
            sessions.text(row, 1),          sessions.text(row, 2),         sessions.optionalText(row, 3),
            sessions.optionalText(row, 4),  sessions.optionalText(row, 5), sessions.optionalText(row, 6),
            sessions.optionalText(row, 7),  sessions.optionalText(row, 8), sessions.optionalText(row, 9),
            sessions.optionalText(row, 10), std::move(linesOf[id]),        {}};
        result.push_back(uploadJSON(id, upload, sessions.text(row, 11)));
    }
    return result;
}

}  // namespace pelm::server
