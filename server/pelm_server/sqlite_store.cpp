#include "pelm_server/sqlite_store.hpp"

#include <sqlite3.h>

#include <pelm/model/json_text.hpp>
#include <pelm/model/known_keys.hpp>

#include <cctype>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <vector>

namespace pelm::server {
namespace {

// One prepared statement, finalised on every path out.
class Statement {
  public:
    Statement(sqlite3* db, const char* sql) {
        if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) {
            throw StoreError(std::string("sqlite: ") + sqlite3_errmsg(db));
        }
    }
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& bind(int index, const std::string& text) {
        sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& bind(int index, std::int64_t value) {
        sqlite3_bind_int64(statement_, index, value);
        return *this;
    }
    Statement& bind(int index, const std::optional<std::string>& text) {
        if (text) return bind(index, *text);
        sqlite3_bind_null(statement_, index);
        return *this;
    }
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) return true;
        if (result == SQLITE_DONE) return false;
        throw StoreError(std::string("sqlite: ") + sqlite3_errstr(result));
    }
    std::string text(int column) const {
        const auto* value = sqlite3_column_text(statement_, column);
        return value == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(value));
    }
    void reset() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    std::optional<std::string> optionalText(int column) const {
        if (sqlite3_column_type(statement_, column) == SQLITE_NULL) return std::nullopt;
        return text(column);
    }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }

  private:
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace

// The two inserts of an upload, prepared once for a whole batch.
struct SqliteStore::UploadStatements {
    Statement session;
    Statement line;
};

namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS apps (token TEXT PRIMARY KEY, config TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS contents (
  id INTEGER PRIMARY KEY, token TEXT NOT NULL, uuid TEXT NOT NULL COLLATE NOCASE, major TEXT NOT NULL,
  minor TEXT NOT NULL, display_type TEXT NOT NULL, content TEXT NOT NULL);
CREATE INDEX IF NOT EXISTS contents_by_beacon ON contents (token, uuid, major, minor, display_type);
CREATE TABLE IF NOT EXISTS sessions (
  id INTEGER PRIMARY KEY AUTOINCREMENT, token TEXT NOT NULL, user TEXT NOT NULL,
  app_version TEXT, sdk_version TEXT, operating_system TEXT, start_time TEXT, end_time TEXT,
  beacon_uuid TEXT, beacon_major TEXT, beacon_minor TEXT, received_at TEXT NOT NULL DEFAULT (datetime('now')));
CREATE TABLE IF NOT EXISTS session_logs (
  session_id INTEGER NOT NULL REFERENCES sessions(id), position INTEGER NOT NULL,
  uuid TEXT, major TEXT, minor TEXT, entrance_time TEXT, exit_time TEXT, PRIMARY KEY (session_id, position));
)sql";

}  // namespace

SqliteStore::SqliteStore(const std::string& path, Open open, std::chrono::milliseconds cacheLifetime)
    : ContentStore(cacheLifetime), path_(path) {
    if (open == Open::ExistingOnly && !std::filesystem::exists(path))
        throw std::runtime_error(path + " does not exist");
    const int create = open == Open::CreateIfMissing ? SQLITE_OPEN_CREATE : 0;
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | create | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
        const std::string message = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
        sqlite3_close(db_);
        throw std::runtime_error("cannot open " + path + ": " + message);
    }
    try {
        sqlite3_busy_timeout(db_, 5000);
        execute("PRAGMA journal_mode=WAL;");
        // In WAL mode this syncs at checkpoints instead of at every upload: a power cut may lose the last
        // uploads, never the file. A store full of phones uploading at once would otherwise queue on fsync.
        execute("PRAGMA synchronous=NORMAL;");
        execute(kSchema);
        addDigestColumn();
    } catch (...) {
        sqlite3_close(db_);  // a constructor that throws runs no destructor
        throw;
    }
}

SqliteStore::~SqliteStore() {
    sqlite3_close(db_);
}

// Files written before uploads were told apart by their digest get the column; their own uploads keep none.
void SqliteStore::addDigestColumn() {
    bool has = false;
    Statement columns(db_, "PRAGMA table_info(sessions)");
    while (columns.step()) has = has || columns.text(1) == "digest";
    if (!has) execute("ALTER TABLE sessions ADD COLUMN digest TEXT");
    execute("CREATE UNIQUE INDEX IF NOT EXISTS sessions_by_digest ON sessions (digest)");
}

void SqliteStore::execute(const char* sql) const {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error != nullptr ? error : "unknown error";
        sqlite3_free(error);
        throw StoreError("sqlite: " + message);
    }
}

void SqliteStore::writeSeed(const std::vector<App>& apps, const std::vector<Content>& contents) {
    std::lock_guard lock(mutex_);
    execute("BEGIN");
    try {
        for (const auto& app : apps) {
            Statement(db_, "INSERT OR REPLACE INTO apps (token, config) VALUES (?, ?)")
                .bind(1, app.token)
                .bind(2, app.config)
                .step();
        }
        for (const auto& row : contents) {
            Statement(
                db_,
                "INSERT OR REPLACE INTO contents (id, token, uuid, major, minor, display_type, content) "
                "VALUES (?, ?, ?, ?, ?, ?, ?)")
                .bind(1, row.id)
                .bind(2, row.token)
                .bind(3, row.uuid)
                .bind(4, row.major)
                .bind(5, row.minor)
                .bind(6, row.displayType)
                .bind(7, row.content)
                .step();
        }
        execute("COMMIT");
    } catch (...) {
        execute("ROLLBACK");
        throw;
    }
}

std::optional<std::string> SqliteStore::queryAppConfig(const std::string& token) const {
    std::lock_guard lock(mutex_);
    Statement query(db_, "SELECT config FROM apps WHERE token = ?");
    query.bind(1, token);
    if (!query.step()) return std::nullopt;
    return query.text(0);
}

std::optional<std::string> SqliteStore::queryContent(const std::string& token, std::int64_t id) const {
    std::lock_guard lock(mutex_);
    Statement query(db_, "SELECT content FROM contents WHERE token = ? AND id = ?");
    query.bind(1, token).bind(2, id);
    if (!query.step()) return std::nullopt;
    return query.text(0);
}

std::optional<std::string> SqliteStore::queryContentForBeacon(const std::string& token,
                                                              const std::string& uuid,
                                                              const std::string& major,
                                                              const std::string& minor,
                                                              const std::string& displayType) const {
    std::lock_guard lock(mutex_);
    Statement query(db_,
                    "SELECT content FROM contents WHERE token = ? AND uuid = ? AND major = ? AND minor = ? "
                    "AND display_type = ? ORDER BY id LIMIT 1");
    query.bind(1, token).bind(2, uuid).bind(3, major).bind(4, minor).bind(5, displayType);
    if (!query.step()) return std::nullopt;
    return query.text(0);
}

// Uploads are written in batches, one transaction each: the thread whose upload finds no batch being
// written writes every upload queued meanwhile, and then the next queued thread takes over. A store full of
// phones then pays for one commit per batch rather than one per upload, and its uploads do not queue on a
// lock whose holder the scheduler has put aside.
std::int64_t SqliteStore::writeUpload(const Upload& upload) {
    PendingUpload pending{upload, 0, nullptr, false};
    std::unique_lock lock(uploadsMutex_);
    queuedUploads_.push_back(&pending);
    uploadWritten_.wait(lock, [&] { return pending.done || !writingUploads_; });
    while (!pending.done) {
        writingUploads_ = true;
        std::vector<PendingUpload*> batch;
        batch.swap(queuedUploads_);
        lock.unlock();
        writeUploads(batch);
        lock.lock();
        // Marked under the lock, so that a waiting thread that sees its upload done also sees everything the
        // writer did with it (and only then lets go of the upload the writer read).
        for (auto* written : batch) written->done = true;
        writingUploads_ = false;
        uploadWritten_.notify_all();
    }
    if (pending.error) std::rethrow_exception(pending.error);
    return pending.id;
}

void SqliteStore::writeUploads(const std::vector<PendingUpload*>& batch) {
    std::lock_guard lock(mutex_);
    try {
        execute("BEGIN");
        UploadStatements statements{
            Statement(db_,
                      "INSERT INTO sessions (token, user, app_version, sdk_version, operating_system, "
                      "start_time, end_time, beacon_uuid, beacon_major, beacon_minor, digest) "
                      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) ON CONFLICT (digest) DO NOTHING"),
            Statement(db_,
                      "INSERT INTO session_logs (session_id, position, uuid, major, minor, entrance_time, "
                      "exit_time) VALUES (?, ?, ?, ?, ?, ?, ?)")};
        for (auto* pending : batch) {
            execute("SAVEPOINT upload");
            try {
                pending->id = insertUpload(statements, pending->upload);
                execute("RELEASE upload");
            } catch (...) {
                pending->error = std::current_exception();
                execute("ROLLBACK TO upload");
                execute("RELEASE upload");
            }
        }
        execute("COMMIT");
    } catch (...) {
        // The transaction itself failed: nothing of the batch is stored, and each of its uploads says so.
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        for (auto* pending : batch) {
            if (!pending->error) pending->error = std::current_exception();
        }
    }
}

std::int64_t SqliteStore::insertUpload(UploadStatements& statements, const Upload& upload) {
    auto& insert = statements.session;
    insert.reset();
    insert.bind(1, upload.token).bind(2, upload.user).bind(3, upload.appVersion).bind(4, upload.sdkVersion);
    insert.bind(5, upload.operatingSystem).bind(6, upload.startTime).bind(7, upload.endTime);
    insert.bind(8, upload.beaconUuid).bind(9, upload.beaconMajor).bind(10, upload.beaconMinor);
    insert.bind(11, upload.digest);
    insert.step();
    if (sqlite3_changes(db_) == 0) {  // sent before: the first one stands
        Statement earlier(db_, "SELECT id FROM sessions WHERE digest = ?");
        earlier.bind(1, upload.digest);
        if (!earlier.step()) throw StoreError("sqlite: an upload was neither stored nor found");
        return earlier.integer(0);
    }
    const auto id = sqlite3_last_insert_rowid(db_);
    std::int64_t position = 0;
    for (const auto& line : upload.lines) {
        auto& log = statements.line;
        log.reset();
        log.bind(1, id).bind(2, position++);
        for (int column = 0; column < 5; ++column)
            log.bind(3 + column, line[static_cast<std::size_t>(column)]);
        log.step();
    }
    return id;
}

JSON SqliteStore::sessions() const {
    std::lock_guard lock(mutex_);
    JSON result = JSON::array();
    Statement query(
        db_,
        "SELECT id, token, user, app_version, sdk_version, operating_system, start_time, end_time, "
        "beacon_uuid, beacon_major, beacon_minor, received_at FROM sessions ORDER BY id");
    Statement logs(
        db_,
        "SELECT uuid, major, minor, entrance_time, exit_time FROM session_logs WHERE session_id = ? "
        "ORDER BY position");
    while (query.step()) {
        Upload upload{query.text(1),
                      query.text(2),
                      query.optionalText(3),
                      query.optionalText(4),
                      query.optionalText(5),
                      query.optionalText(6),
                      query.optionalText(7),
                      query.optionalText(8),
                      query.optionalText(9),
                      query.optionalText(10),
                      {},
                      {}};
        logs.reset();
        logs.bind(1, query.integer(0));
        while (logs.step()) {
            upload.lines.push_back({logs.optionalText(0), logs.optionalText(1), logs.optionalText(2),
                                    logs.optionalText(3), logs.optionalText(4)});
        }
        result.push_back(uploadJSON(query.integer(0), upload, query.text(11)));
    }
    return result;
}

}  // namespace pelm::server
