#include "pelm_server/content_store.hpp"

#include <openssl/evp.h>

#include <pelm/model/json_text.hpp>
#include <pelm/model/known_keys.hpp>

#include <algorithm>
#include <cctype>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>

namespace pelm::server {
namespace {

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

// A form value may be any bytes; a database column of text takes valid UTF-8 without NUL.
std::string storable(const std::string& text) {
    auto valid = JSON::parse(jsonText(JSON(text))).get<std::string>();
    valid.erase(std::remove(valid.begin(), valid.end(), '\0'), valid.end());
    return valid;
}

std::optional<std::string> textMember(const JSON& object, const char* key) {
    if (!object.is_object()) return std::nullopt;
    const auto found = object.find(key);
    if (found == object.end() || !found->is_string()) return std::nullopt;
    return storable(found->get<std::string>());
}

std::string sha256Hex(const std::string& bytes) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest, &size, EVP_sha256(), nullptr) != 1)
        throw std::runtime_error("cannot compute an upload's digest");
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < size; ++i) {
        hex += kHex[digest[i] >> 4];
        hex += kHex[digest[i] & 15];
    }
    return hex;
}

void put(JSON& object, const char* key, const std::optional<std::string>& text) {
    if (text) object[key] = *text;
}

void lower(ContentStore::ReadAt* oldest, ContentStore::ReadAt readAt) {
    if (oldest && readAt < *oldest) *oldest = readAt;
}

}  // namespace

ContentStore::ContentStore(std::chrono::milliseconds cacheLifetime) : cacheLifetime_(cacheLifetime) {}

ContentStore::~ContentStore() = default;

void ContentStore::seed(const JSON& data) {
    if (!data.is_object())
        throw std::invalid_argument("the seed must be a JSON object with \"apps\" and \"contents\"");
    requireKnownKeys(data, {"apps", "contents"}, "");
    const auto apps = data.value("apps", JSON::array());
    if (!apps.is_array() || apps.empty()) throw std::invalid_argument("the seed has no \"apps\"");
    std::vector<App> appRows;
    std::set<std::string> tokens;
    for (std::size_t i = 0; i < apps.size(); ++i) {
        const auto where = "apps[" + std::to_string(i) + "]";
        requireKnownKeys(apps[i], {"app_token", "app_config"}, where);
        const auto token = requireText(apps[i], "app_token", where);
        tokens.insert(token);
        appRows.push_back({token, jsonText(requireObject(apps[i], "app_config", where))});
    }
    const auto contents = data.value("contents", JSON::array());
    if (!contents.is_array()) throw std::invalid_argument("\"contents\" must be an array");
    std::vector<Content> contentRows;
    std::map<std::int64_t, std::size_t> entryOfId;
    for (std::size_t i = 0; i < contents.size(); ++i) {
        const auto where = "contents[" + std::to_string(i) + "]";
        const auto& entry = contents[i];
        requireKnownKeys(entry, {"app_token", "beacon", "display_type", "content"}, where);
        const auto& beacon = requireObject(entry, "beacon", where);
        requireKnownKeys(beacon, {"uuid", "major", "minor"}, where + ".beacon");
        const auto token = requireText(entry, "app_token", where);
        if (!tokens.count(token))
            throw std::invalid_argument(where + ".app_token: no app of the seed has the token \"" + token +
                                        "\"");
        const auto& content = requireObject(entry, "content", where);
        const auto id = content.find("id");
        if (id == content.end() || !id->is_number_integer()) {
            throw std::invalid_argument(where + ": \"content\" needs an integer \"id\"");
        }
        // Two contents under one id would leave one of them unserved, whichever app each belongs to.
        if (const auto [earlier, added] = entryOfId.emplace(id->get<std::int64_t>(), i); !added) {
            throw std::invalid_argument(where + ".content.id: " + std::to_string(earlier->first) +
                                        " is already the id of contents[" + std::to_string(earlier->second) +
                                        "]");
        }
        const auto type = requireText(entry, "display_type", where);
        if (type != "entry" && type != "exit") {
            throw std::invalid_argument(where + ": \"display_type\" must be \"entry\" or \"exit\"");
        }
        contentRows.push_back({id->get<std::int64_t>(), token, requireText(beacon, "uuid", where + ".beacon"),
                               requireIdentityNumber(beacon, "major", where + ".beacon"),
                               requireIdentityNumber(beacon, "minor", where + ".beacon"), type,
                               jsonText(content)});
    }
    std::unique_lock cache(cacheMutex_);
    cache_.clear();
    generation_.fetch_add(1, std::memory_order_release);
    writeSeed(appRows, contentRows);
}

template <class Call>
auto ContentStore::throughOutage(Call&& call) const -> decltype(call()) {
    const bool failing = failing_.load();
    const bool probe = failing && !probing_.exchange(true);
    if (failing && !probe) {
        std::lock_guard lock(outageMutex_);
        throw StoreError(lastError_);
    }
    callsMade_.fetch_add(1, std::memory_order_relaxed);
    try {
        auto result = call();
        failing_ = false;
        if (probe) probing_ = false;
        return result;
    } catch (const StoreError& error) {
        noteFailure(error);
        if (probe) probing_ = false;
        throw;
    }
}

void ContentStore::noteFailure(const StoreError& error) const {
    std::lock_guard lock(outageMutex_);
    lastError_ = error.what();
    failing_ = true;
    callsFailed_.fetch_add(1, std::memory_order_relaxed);
}

std::optional<std::string> ContentStore::outage() const {
    if (!failing_.load()) return std::nullopt;
    std::lock_guard lock(outageMutex_);
    return lastError_;
}

std::optional<JSON> ContentStore::cached(const std::string& key,
                                         const std::function<std::optional<std::string>()>& query,
                                         ReadAt* oldest) const {
    std::uint64_t generation = 0;
    const auto now = std::chrono::steady_clock::now();
    std::optional<Cached> stale;
    {
        std::shared_lock lock(cacheMutex_);
        if (const auto found = cache_.find(key); found != cache_.end()) {
            const auto age = now - found->second.readAt;
            if (age < cacheLifetime_) {
                lower(oldest, found->second.readAt);
                return found->second.value;
            }
            if (age < kLongestStale) stale = found->second;
        }
        generation = generation_;
    }
    // Through an outage the last answer stands, without a wait on the database.
    if (stale && failing_.load()) {
        lower(oldest, stale->readAt);
        return stale->value;
    }
    std::optional<std::string> text;
    try {
        text = throughOutage(query);
    } catch (const StoreError&) {
        if (!stale) throw;
        lower(oldest, stale->readAt);
        return stale->value;
    }
    lower(oldest, now);
    std::optional<JSON> value;
    if (text) value = storedJSON(*text);
    std::unique_lock lock(cacheMutex_);
    if (generation == generation_) {
        if (cache_.size() >= kMaxCached) cache_.clear();
        cache_[key] = {value, now};
    }
    return value;
}

std::optional<JSON> ContentStore::appConfig(const std::string& token, ReadAt* oldest) const {
    return cached(
        "a" + token, [&] { return queryAppConfig(token); }, oldest);
}

std::optional<JSON> ContentStore::content(const std::string& token, std::int64_t id) const {
    const auto text = throughOutage([&] { return queryContent(token, id); });
    if (!text) return std::nullopt;
    return storedJSON(*text);
}

std::optional<JSON> ContentStore::contentForBeacon(const std::string& token, const std::string& uuid,
                                                   const std::string& major, const std::string& minor,
                                                   const std::string& displayType, ReadAt* oldest) const {
    std::string upperUuid = uuid;
    for (auto& c : upperUuid) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    std::string key = "c";
    for (const std::string* part :
         {&token, static_cast<const std::string*>(&upperUuid), &major, &minor, &displayType}) {
        key += std::to_string(part->size());
        key += ':';
        key += *part;
    }
    return cached(
        key, [&] { return queryContentForBeacon(token, uuid, major, minor, displayType); }, oldest);
}

std::int64_t ContentStore::storeSession(const std::string& token, const std::string& user,
                                        const JSON& session, const JSON& beacon, const JSON& sessionLogs) {
    Upload upload{storable(token),
                  storable(user),
                  textMember(session, "app_version"),
                  textMember(session, "sdk_version"),
                  textMember(session, "operating_system"),
                  textMember(session, "start_time"),
                  textMember(session, "end_time"),
                  textMember(beacon, "uuid"),
                  textMember(beacon, "major"),
                  textMember(beacon, "minor"),
                  {},
                  {}};
    if (sessionLogs.is_array()) {
        for (const auto& line : sessionLogs) {
            upload.lines.push_back({textMember(line, "uuid"), textMember(line, "major"),
                                    textMember(line, "minor"), textMember(line, "entrance_time"),
                                    textMember(line, "exit_time")});
        }
    }
    upload.digest = sha256Hex(jsonText(uploadJSON(0, upload, "")));
    return throughOutage([&] { return writeUpload(upload); });
}

JSON ContentStore::uploadJSON(std::int64_t id, const Upload& upload, const std::string& receivedAt) {
    JSON result = {{"id", id}, {"app_token", upload.token}, {"session_user", upload.user}};
    JSON session = JSON::object();
    put(session, "app_version", upload.appVersion);
    put(session, "sdk_version", upload.sdkVersion);
    put(session, "operating_system", upload.operatingSystem);
    put(session, "start_time", upload.startTime);
    put(session, "end_time", upload.endTime);
    JSON beacon = JSON::object();
    put(beacon, "uuid", upload.beaconUuid);
    put(beacon, "major", upload.beaconMajor);
    put(beacon, "minor", upload.beaconMinor);
    JSON lines = JSON::array();
    for (const auto& line : upload.lines) {
        JSON entry = JSON::object();
        put(entry, "uuid", line[0]);
        put(entry, "major", line[1]);
        put(entry, "minor", line[2]);
        put(entry, "entrance_time", line[3]);
        put(entry, "exit_time", line[4]);
        lines.push_back(std::move(entry));
    }
    result["session"] = std::move(session);
    result["beacon"] = std::move(beacon);
    result["session_logs"] = std::move(lines);
    result["received_at"] = receivedAt;
    return result;
}

JSON ContentStore::storedJSON(const std::string& text) {
    auto parsed = parseJSONText(text);
    if (!parsed) throw std::runtime_error("the database holds a record that is not JSON");
    return std::move(*parsed);
}

}  // namespace pelm::server
