#include <pelm/api/api_request.hpp>

#include <pelm/api/form_encoding.hpp>
#include <pelm/sdk/pelm_constants.hpp>

namespace pelm {
namespace {

template <class... Visitors>
struct Overloaded : Visitors... {
    using Visitors::operator()...;
};
template <class... Visitors>
Overloaded(Visitors...) -> Overloaded<Visitors...>;

JSON objectOf(const auto& record) {
    return record ? record->toJSON() : JSON::object();
}

// A lookup is meaningless without the whole identity; a missing text is sent empty and finds nothing.
std::string textOf(const std::shared_ptr<Beacon>& beacon, std::optional<std::string> Beacon::*field) {
    return beacon && (*beacon).*field ? *((*beacon).*field) : std::string();
}

// Joins base and path with exactly one "/", keeping any query of the base after the path.
std::string joinURL(std::string base, const std::string& path) {
    std::string query;
    if (const auto mark = base.find('?'); mark != std::string::npos) {
        query = base.substr(mark);
        base.erase(mark);
    }
    while (!base.empty() && base.back() == '/') base.pop_back();
    return base + path + query;
}

}  // namespace

std::string APIRequest::method() const {
    return std::holds_alternative<CreateSession>(case_) ? "POST" : "GET";
}

std::string APIRequest::path() const {
    const std::string base(PelmConstants::apiBasePath);
    return std::visit(Overloaded{
                          [&](const Status&) { return base + "/status"; },
                          [&](const AppConfig&) { return base + "/app_config/by_app_token"; },
                          [&](const ContentById& c) { return base + "/contents/" + std::to_string(c.id); },
                          [&](const ContentByHardware&) { return base + "/contents/by_hardware"; },
                          [&](const CreateSession&) { return base + "/sessions"; },
                      },
                      case_);
}

JSON APIRequest::parameters() const {
    return std::visit(Overloaded{
                          [](const Status& c) {
                              return JSON{{"app_token", c.appToken}};
                          },
                          [](const AppConfig& c) {
                              return JSON{{"app_token", c.appToken}};
                          },
                          [](const ContentById& c) {
                              return JSON{{"app_token", c.appToken}, {"session_user", c.user}};
                          },
                          [](const ContentByHardware& c) {
                              return JSON{{"app_token", c.appToken},
                                          {"major", textOf(c.beacon, &Beacon::major)},
                                          {"minor", textOf(c.beacon, &Beacon::minor)},
                                          {"session_user", c.user},
                                          {"type", "BLE"},
                                          {"uuid", textOf(c.beacon, &Beacon::uuid)}};
                          },
                          [](const CreateSession& c) {
                              JSON logs = JSON::array();
                              for (const auto& line : c.sessionLogs) logs.push_back(objectOf(line));
                              return JSON{{"app_token", c.appToken},
                                          {"beacon", objectOf(c.beacon)},
                                          {"session", objectOf(c.session)},
                                          {"session_logs", std::move(logs)},
                                          {"session_user", c.user}};
                          },
                      },
                      case_);
}

std::optional<platform::HttpRequest> APIRequest::urlRequest() const {
    const auto base = PelmConstants::apiURL();
    if (!base) return std::nullopt;
    platform::HttpRequest request;
    request.method = method();
    request.url = joinURL(*base, path());
    const auto encoded = formEncode(parameters());
    if (request.method == "GET") {
        if (!encoded.empty())
            request.url += (request.url.find('?') == std::string::npos ? "?" : "&") + encoded;
    } else {
        request.body = encoded;
        request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded; charset=utf-8");
    }
    return request;
}

}  // namespace pelm
