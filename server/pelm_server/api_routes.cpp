#include "pelm_server/api_routes.hpp"

#include <charconv>

#include <pelm/model/json_text.hpp>
#include <pelm/sdk/pelm_constants.hpp>

#include "pelm_server/form_body.hpp"

namespace pelm::server {
namespace {

Reply reply(int status, const JSON& body) {
    Reply made;
    made.status = status;
    made.body = sharedText(jsonText(body));
    return made;
}

std::string text(const JSON& form, const char* key) {
    const auto found = form.find(key);
    return found != form.end() && found->is_string() ? found->get<std::string>() : std::string();
}

// Enough of a token for the operator to tell apps apart in a log, not enough to use it.
std::string tokenHint(const std::string& token) {
    if (token.size() <= 4) return "\"" + token + "\"";
    return "\"" + token.substr(0, 4) + "…\"";
}

// "/contents/12" -> "12"; none for any other path.
std::optional<std::string_view> contentId(std::string_view path) {
    constexpr std::string_view kPrefix = "/contents/";
    if (path.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
    auto id = path.substr(kPrefix.size());
    const auto digits = id.substr(id.empty() || id.front() != '-' ? 0 : 1);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos)
        return std::nullopt;
    return id;
}

}  // namespace

Reply ApiRoutes::error(int status, const std::string& message) {
    return reply(status, JSON{{"status", "error"}, {"message", message}});
}

Reply ApiRoutes::unavailable(const std::string& message) {
    auto answer = error(503, message);
    answer.retryAfter = kRetryAfterSeconds;
    return answer;
}

Reply ApiRoutes::answer(std::string_view method, std::string_view target, const std::string& body) {
    const auto mark = target.find('?');
    const auto path = target.substr(0, mark);
    const auto query = mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
    const auto generation = store_.generation();
    ReadAt readAt = std::chrono::steady_clock::now();
    ReadAt* oldest = &readAt;
    try {
        auto made = route(method, path, query, body, oldest);
        if (oldest) answers_.keep(target, made, readAt, generation);
        return made;
    } catch (const StoreError& e) {
        log_("database unavailable",
             "request " + std::string(method) + " " + std::string(path) + " not answered: " + e.what());
        return unavailable("The database is unavailable; send the request again later");
    } catch (const std::exception& e) {
        log_("request failed",
             "request " + std::string(method) + " " + std::string(path) + " failed: " + e.what());
        return error(500, "Internal server error");
    }
}

std::optional<Reply> ApiRoutes::answerFromMemory(std::string_view method, std::string_view target) const {
    if (method != "GET") return std::nullopt;
    return answers_.find(target);
}

Reply ApiRoutes::route(std::string_view method, std::string_view path, std::string_view query,
                       const std::string& body, ReadAt*& oldest) const {
    const auto lookup = oldest;
    oldest = nullptr;
    const std::string_view base = PelmConstants::apiBasePath;
    if (path.substr(0, base.size()) != base) return error(404, "Not found");
    path.remove_prefix(base.size());
    if (method == "POST" && path == "/sessions") return upload(body);
    if (method != "GET") return error(404, "Not found");
    const auto parameters = parseFormBody(query);
    if (path == "/status") return status(parameters);
    if (path == "/app_config/by_app_token") return appConfig(parameters, oldest = lookup);
    if (path == "/contents/by_hardware") return contentForHardware(parameters, oldest = lookup);
    if (const auto id = contentId(path)) return content(parameters, *id);
    return error(404, "Not found");
}

// Answered from the cache through an outage; "database" then says what the server knows of it.
Reply ApiRoutes::status(const JSON& query) const {
    if (!store_.appConfig(text(query, "app_token"))) return error(401, "Unknown app token");
    const auto outage = store_.outage();
    return reply(200, {{"status", "successful"},
                       {"version", "1.0.0"},
                       {"api_version", "v1"},
                       {"git_revision", "pelm-server"},
                       {"database", outage ? "unavailable: " + *outage : std::string("available")}});
}

Reply ApiRoutes::appConfig(const JSON& query, ReadAt* oldest) const {
    const auto config = store_.appConfig(text(query, "app_token"), oldest);
    if (!config) return error(401, "Unknown app token");
    return reply(200, {{"status", "successful"}, {"app_config", *config}});
}

Reply ApiRoutes::content(const JSON& query, std::string_view digits) const {
    const auto token = text(query, "app_token");
    if (!store_.appConfig(token)) return error(401, "Unknown app token");
    std::int64_t id = 0;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), id).ec != std::errc())
        return error(404, "No such content");
    const auto content = store_.content(token, id);
    if (!content) return error(404, "No such content");
    return reply(200, {{"status", "successful"}, {"content", *content}});
}

Reply ApiRoutes::contentForHardware(const JSON& query, ReadAt* oldest) const {
    const auto token = text(query, "app_token");
    if (!store_.appConfig(token, oldest)) return error(401, "Unknown app token");
    if (text(query, "type") != "BLE") return error(400, "Unsupported hardware type");
    const auto uuid = text(query, "uuid"), major = text(query, "major"), minor = text(query, "minor");
    const auto entry = store_.contentForBeacon(token, uuid, major, minor, "entry", oldest);
    const auto exit = store_.contentForBeacon(token, uuid, major, minor, "exit", oldest);
    if (!entry && !exit) return error(404, "No content for this beacon");
    JSON body = {{"status", "successful"}};
    if (entry) body["content_entry"] = *entry;
    if (exit) body["content_exit"] = *exit;
    return reply(200, body);
}

// An upload the database did not take (or whose token it could not check) is answered 503, so that the
// phone keeps the visit and sends it again, and the operator reads why.
Reply ApiRoutes::upload(const std::string& body) const {
    const auto form = parseFormBody(body);
    const auto token = text(form, "app_token");
    try {
        if (!store_.appConfig(token)) return error(401, "Unknown app token");
        const auto session = form.value("session", JSON());
        if (!session.is_object()) return error(422, "The upload has no session");
        store_.storeSession(token, text(form, "session_user"), session, form.value("beacon", JSON::object()),
                            form.value("session_logs", JSON::array()));
    } catch (const StoreError& e) {
        log_("upload not stored", "upload for app " + tokenHint(token) + " not stored: " + e.what());
        return unavailable("The upload could not be stored; send it again later");
    }
    return reply(201, {{"status", "successful"}});
}

}  // namespace pelm::server
