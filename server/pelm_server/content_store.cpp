#include "pelm_server/content_store.hpp"

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
            throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(db));
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
    Statement& bindOptional(int index, const JSON& object, const char* key) {
        const auto found = object.find(key);
        if (found != object.end() && found->is_string()) return bind(index, found->get<std::string>());
        sqlite3_bind_null(statement_, index);
        return *this;
    }
    bool step() {
        const int result = sqlite3_step(statement_);
        if (result == SQLITE_ROW) return true;
        if (result == SQLITE_DONE) return false;
        throw std::runtime_error(std::string("sqlite: ") + sqlite3_errstr(result));
    }
    std::string text(int column) const {
        const auto* value = sqlite3_column_text(statement_, column);
        return value == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(value));
    }
    void reset() {
        sqlite3_reset(statement_);
        sqlite3_clear_bindings(statement_);
    }
    bool isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }
    std::int64_t integer(int column) const { return sqlite3_column_int64(statement_, column); }

  private:
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace

// The two inserts of an upload, prepared once for a whole batch.
struct ContentStore::UploadStatements {
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

void requireKnownKeys(const JSON& object, std::initializer_list<const char*> known,
                      const std::string& where) {
    if (const auto problem = unknownKeyProblem(object, known))
        throw std::invalid_argument(where + (where.empty() ? "" : ".") + *problem);
}

std::string requireText(const JSON& entry, const char* key, const std::string& where) {
    const auto found = entry.find(key);
    if (found == entry.end() || !found->is_string()) {
        throw std::invalid_argument(where + ": \"" + key + "\" must be a string");
    }
    return found->get<std::string>();
}

// A beacon's major or minor: a number, as in a scenario; kept as the text the client sends it as.
std::string requireIdentityNumber(const JSON& beacon, const char* key, const std::string& where) {
    const auto found = beacon.find(key);
    if (found == beacon.end() || !found->is_number_integer() || found->get<std::int64_t>() < 0 ||
        found->get<std::int64_t>() > 65535) {
        throw std::invalid_argument(where + "." + key + ": must be a whole number from 0 to 65535");
    }
    return std::to_string(found->get<std::int64_t>());
}

const JSON& requireObject(const JSON& entry, const char* key, const std::string& where) {
    const auto found = entry.find(key);
    if (found == entry.end() || !found->is_object()) {
        throw std::invalid_argument(where + ": \"" + key + "\" must be an object");
    }
    return *found;
}

// What the store wrote itself; a database changed by other hands may hold anything.
JSON storedJSON(const std::string& text) {
    auto parsed = parseJSONText(text);
    if (!parsed) throw std::runtime_error("the database holds a record that is not JSON");
    return std::move(*parsed);
}

void putText(JSON& object, const char* key, const Statement& row, int column) {
    if (!row.isNull(column)) object[key] = row.text(column);
}

}  // namespace

ContentStore::ContentStore(const std::string& path, Open open) {
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
    } catch (...) {
        sqlite3_close(db_);  // a constructor that throws runs no destructor
        throw;
    }
}

ContentStore::~ContentStore() {
    sqlite3_close(db_);
}

void ContentStore::execute(const char* sql) const {
    char* error = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error != nullptr ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error("sqlite: " + message);
    }
}

void ContentStore::seed(const JSON& data) {
    if (!data.is_object())
        throw std::invalid_argument("the seed must be a JSON object with \"apps\" and \"contents\"");
    requireKnownKeys(data, {"apps", "contents"}, "");
    const auto apps = data.value("apps", JSON::array());
    if (!apps.is_array() || apps.empty()) throw std::invalid_argument("the seed has no \"apps\"");
    std::unique_lock cache(cacheMutex_);
    appConfigs_.clear();
    contents_.clear();
    ++generation_;
    std::lock_guard lock(mutex_);
    execute("BEGIN");
    try {
        std::set<std::string> tokens;
        for (std::size_t i = 0; i < apps.size(); ++i) {
            const auto where = "apps[" + std::to_string(i) + "]";
            requireKnownKeys(apps[i], {"app_token", "app_config"}, where);
            const auto token = requireText(apps[i], "app_token", where);
            tokens.insert(token);
            const auto& config = requireObject(apps[i], "app_config", where);
            Statement(db_, "INSERT OR REPLACE INTO apps (token, config) VALUES (?, ?)")
                .bind(1, token)
                .bind(2, jsonText(config))
                .step();
        }
        const auto contents = data.value("contents", JSON::array());
        if (!contents.is_array()) throw std::invalid_argument("\"contents\" must be an array");
        for (std::size_t i = 0; i < contents.size(); ++i) {
            const auto where = "contents[" + std::to_string(i) + "]";
            const auto& entry = contents[i];
            requireKnownKeys(entry, {"app_token", "beacon", "display_type", "content"}, where);
            const auto& beacon = requireObject(entry, "beacon", where);
            requireKnownKeys(beacon, {"uuid", "major", "minor"}, where + ".beacon");
            if (const auto token = requireText(entry, "app_token", where); !tokens.count(token))
                throw std::invalid_argument(where + ".app_token: no app of the seed has the token \"" +
                                            token + "\"");
            const auto& content = requireObject(entry, "content", where);
            const auto id = content.find("id");
            if (id == content.end() || !id->is_number_integer()) {
                throw std::invalid_argument(where + ": \"content\" needs an integer \"id\"");
            }
            const auto type = requireText(entry, "display_type", where);
            if (type != "entry" && type != "exit") {
                throw std::invalid_argument(where + ": \"display_type\" must be \"entry\" or \"exit\"");
            }
            Statement(
                db_,
                "INSERT OR REPLACE INTO contents (id, token, uuid, major, minor, display_type, content) "
                "VALUES (?, ?, ?, ?, ?, ?, ?)")
                .bind(1, id->get<std::int64_t>())
                .bind(2, requireText(entry, "app_token", where))
                .bind(3, requireText(beacon, "uuid", where + ".beacon"))
                .bind(4, requireIdentityNumber(beacon, "major", where + ".beacon"))
                .bind(5, requireIdentityNumber(beacon, "minor", where + ".beacon"))
                .bind(6, type)
                .bind(7, jsonText(content))
                .step();
        }
        execute("COMMIT");
    } catch (...) {
        execute("ROLLBACK");
        throw;
    }
}

std::optional<JSON> ContentStore::appConfig(const std::string& token) const {
    std::uint64_t generation = 0;
    {
        std::shared_lock lock(cacheMutex_);
        if (const auto found = appConfigs_.find(token); found != appConfigs_.end()) return found->second;
        generation = generation_;
    }
    auto config = queryAppConfig(token);
    std::unique_lock lock(cacheMutex_);
    if (config && generation == generation_) {
        if (appConfigs_.size() >= kMaxCached) appConfigs_.clear();
        appConfigs_.emplace(token, *config);
    }
    return config;
}

std::optional<JSON> ContentStore::queryAppConfig(const std::string& token) const {
    std::lock_guard lock(mutex_);
    Statement query(db_, "SELECT config FROM apps WHERE token = ?");
    query.bind(1, token);
    if (!query.step()) return std::nullopt;
    return storedJSON(query.text(0));
}

std::optional<JSON> ContentStore::content(const std::string& token, std::int64_t id) const {
    std::lock_guard lock(mutex_);
    Statement query(db_, "SELECT content FROM contents WHERE token = ? AND id = ?");
    query.bind(1, token).bind(2, id);
    if (!query.step()) return std::nullopt;
    return storedJSON(query.text(0));
}

std::optional<JSON> ContentStore::contentForBeacon(const std::string& token, const std::string& uuid,
                                                   const std::string& major, const std::string& minor,
                                                   const std::string& displayType) const {
    const std::string upperUuid = [&] {
        std::string upper = uuid;
        for (auto& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return upper;
    }();
    std::string key;
    for (const auto* part : {&token, &upperUuid, &major, &minor, &displayType}) {
        key += std::to_string(part->size());
        key += ':';
        key += *part;
    }
    std::uint64_t generation = 0;
    {
        std::shared_lock lock(cacheMutex_);
        if (const auto found = contents_.find(key); found != contents_.end()) return found->second;
        generation = generation_;
    }
    auto content = queryContentForBeacon(token, uuid, major, minor, displayType);
    std::unique_lock lock(cacheMutex_);
    if (generation == generation_) {
        if (contents_.size() >= kMaxCached) contents_.clear();
        contents_.emplace(std::move(key), content);
    }
    return content;
}

std::optional<JSON> ContentStore::queryContentForBeacon(const std::string& token, const std::string& uuid,
                                                        const std::string& major, const std::string& minor,
                                                        const std::string& displayType) const {
    std::lock_guard lock(mutex_);
    Statement query(db_,
                    "SELECT content FROM contents WHERE token = ? AND uuid = ? AND major = ? AND minor = ? "
                    "AND display_type = ? ORDER BY id LIMIT 1");
    query.bind(1, token).bind(2, uuid).bind(3, major).bind(4, minor).bind(5, displayType);
    if (!query.step()) return std::nullopt;
    return storedJSON(query.text(0));
}

// Uploads are written in batches, one transaction each: the thread whose upload finds no batch being
// written writes every upload queued meanwhile, and then the next queued thread takes over. A store full of
// phones then pays for one commit per batch rather than one per upload, and its uploads do not queue on a
// lock whose holder the scheduler has put aside.
std::int64_t ContentStore::storeSession(const std::string& token, const std::string& user,
                                        const JSON& session, const JSON& beacon, const JSON& sessionLogs) {
    PendingUpload upload{token, user, session, beacon, sessionLogs, 0, nullptr, false};
    std::unique_lock lock(uploadsMutex_);
    queuedUploads_.push_back(&upload);
    uploadWritten_.wait(lock, [&] { return upload.done || !writingUploads_; });
    while (!upload.done) {
        writingUploads_ = true;
        std::vector<PendingUpload*> batch;
        batch.swap(queuedUploads_);
        lock.unlock();
        writeUploads(batch);
        lock.lock();
        // Marked under the lock, so that a waiting thread that sees its upload done also sees everything the
        // writer did with it (and only then lets go of the texts the writer read).
        for (auto* written : batch) written->done = true;
        writingUploads_ = false;
        uploadWritten_.notify_all();
    }
    if (upload.error) std::rethrow_exception(upload.error);
    return upload.id;
}

void ContentStore::writeUploads(const std::vector<PendingUpload*>& batch) {
    std::lock_guard lock(mutex_);
    try {
        execute("BEGIN");
        UploadStatements statements{
            Statement(db_,
                      "INSERT INTO sessions (token, user, app_version, sdk_version, operating_system, "
                      "start_time, end_time, beacon_uuid, beacon_major, beacon_minor) "
                      "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
            Statement(db_,
                      "INSERT INTO session_logs (session_id, position, uuid, major, minor, entrance_time, "
                      "exit_time) VALUES (?, ?, ?, ?, ?, ?, ?)")};
        for (auto* upload : batch) {
            execute("SAVEPOINT upload");
            try {
                upload->id = insertUpload(statements, *upload);
                execute("RELEASE upload");
            } catch (...) {
                upload->error = std::current_exception();
                execute("ROLLBACK TO upload");
                execute("RELEASE upload");
            }
        }
        execute("COMMIT");
    } catch (...) {
        // The transaction itself failed: nothing of the batch is stored, and each of its uploads says so.
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        for (auto* upload : batch) {
            if (!upload->error) upload->error = std::current_exception();
        }
    }
}

std::int64_t ContentStore::insertUpload(UploadStatements& statements, const PendingUpload& upload) {
    auto& insert = statements.session;
    insert.reset();
    const auto& session = upload.session;
    insert.bind(1, upload.token).bind(2, upload.user);
    insert.bindOptional(3, session, "app_version").bindOptional(4, session, "sdk_version");
    insert.bindOptional(5, session, "operating_system").bindOptional(6, session, "start_time");
    insert.bindOptional(7, session, "end_time").bindOptional(8, upload.beacon, "uuid");
    insert.bindOptional(9, upload.beacon, "major").bindOptional(10, upload.beacon, "minor");
    insert.step();
    const auto id = sqlite3_last_insert_rowid(db_);
    std::int64_t position = 0;
    for (const auto& line : upload.sessionLogs) {
        auto& log = statements.line;
        log.reset();
        log.bind(1, id).bind(2, position++);
        log.bindOptional(3, line, "uuid").bindOptional(4, line, "major").bindOptional(5, line, "minor");
        log.bindOptional(6, line, "entrance_time").bindOptional(7, line, "exit_time");
        log.step();
    }
    return id;
}

JSON ContentStore::sessions() const {
    std::lock_guard lock(mutex_);
    JSON result = JSON::array();
    Statement query(
        db_,
        "SELECT id, token, user, app_version, sdk_version, operating_system, start_time, end_time, "
        "beacon_uuid, beacon_major, beacon_minor, received_at FROM sessions ORDER BY id");
    while (query.step()) {
        JSON upload = {
            {"id", query.integer(0)}, {"app_token", query.text(1)}, {"session_user", query.text(2)}};
        JSON session = JSON::object();
        putText(session, "app_version", query, 3);
        putText(session, "sdk_version", query, 4);
        putText(session, "operating_system", query, 5);
        putText(session, "start_time", query, 6);
        putText(session, "end_time", query, 7);
        JSON beacon = JSON::object();
        putText(beacon, "uuid", query, 8);
        putText(beacon, "major", query, 9);
        putText(beacon, "minor", query, 10);
        upload["session"] = std::move(session);
        upload["beacon"] = std::move(beacon);
        upload["session_logs"] = JSON::array();
        upload["received_at"] = query.text(11);
        Statement logs(
            db_,
            "SELECT uuid, major, minor, entrance_time, exit_time FROM session_logs WHERE session_id = ? "
            "ORDER BY position");
        logs.bind(1, query.integer(0));
        while (logs.step()) {
            JSON line = JSON::object();
            putText(line, "uuid", logs, 0);
            putText(line, "major", logs, 1);
            putText(line, "minor", logs, 2);
            putText(line, "entrance_time", logs, 3);
            putText(line, "exit_time", logs, 4);
            upload["session_logs"].push_back(std::move(line));
        }
        result.push_back(std::move(upload));
    }
    return result;
}

}  // namespace pelm::server
