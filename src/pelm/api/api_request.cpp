#include <pelm/api/api_request.hpp>
#include <pelm/model/record_json.hpp>

#include <algorithm>
#include <charconv>

#include <pelm/api/form_encoding.hpp>
#include <pelm/model/hex_digits.hpp>
#include <pelm/sdk/pelm_constants.hpp>
#include <pelm/sdk/settings_manager.hpp>

namespace pelm {
namespace {

template <class... Visitors>
struct Overloaded : Visitors... {
    using Visitors::operator()...;
};
template <class... Visitors>
Overloaded(Visitors...) -> Overloaded<Visitors...>;

JSON objectOf(const auto& record) {
    return record ? toJSON(*record) : JSON::object();
}

// A lookup is meaningless without the whole identity; a missing text is sent empty and finds nothing.
std::string textOf(const std::shared_ptr<Beacon>& beacon, std::optional<std::string> Beacon::*field) {
    return beacon && (*beacon).*field ? *((*beacon).*field) : std::string();
}

// Quoted, with control characters and bytes outside ASCII as \xNN, so a log line stays one readable line.
std::string printable(std::string_view text) {
    std::string out = "\"";
    for (const char c : text.substr(0, 200)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F) {
            out += "\\x";
            out += kHexDigits[byte >> 4];
            out += kHexDigits[byte & 0x0F];
        } else {
            out += c;
        }
    }
    return out + (text.size() > 200 ? "...\"" : "\"");
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

std::optional<std::string> APIRequest::hostProblem(std::string_view host) {
    const auto authorityEnd = std::min(host.find_first_of("/?#"), host.size());
    const auto authority = host.substr(0, authorityEnd);
    const auto rest = host.substr(authorityEnd);
    for (const char c : host) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7F) return "it holds white space or a control character";
    }
    if (host.find("://") != std::string_view::npos) return "it holds a scheme";
    if (authority.empty()) return "it names no host";
    if (authority.size() > 261) return "it is longer than a host name and port can be";
    if (authority.find('@') != std::string_view::npos) return "it holds user info (\"@\")";
    if (rest.find('#') != std::string_view::npos) return "it holds a fragment (\"#\")";
    if (!rest.empty() && rest != "/" && rest.front() != '?' && rest.substr(0, 2) != "/?") {
        return "it holds a path";
    }
    auto name = authority;
    std::string_view port;
    if (name.front() == '[') {
        const auto close = name.find(']');
        if (close == std::string_view::npos) return "its IPv6 address has no closing \"]\"";
        const auto inside = name.substr(1, close - 1);
        if (inside.empty() || inside.find_first_not_of("0123456789abcdefABCDEF:.") != std::string_view::npos)
            return "its IPv6 address is malformed";
        if (close + 1 < name.size()) {
            if (name[close + 1] != ':') return "something follows its IPv6 address";
            port = name.substr(close + 2);
            if (port.empty()) return "its port is empty";
        }
    } else {
        if (const auto colon = name.find(':'); colon != std::string_view::npos) {
            port = name.substr(colon + 1);
            name = name.substr(0, colon);
            if (port.empty()) return "its port is empty";
        }
        constexpr std::string_view allowed =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._";
        if (name.empty() || name.find_first_not_of(allowed) != std::string_view::npos)
            return "its name may hold only letters, digits, \"-\", \".\" and \"_\"";
    }
    if (!port.empty()) {
        int number = 0;
        const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
        if (error != std::errc() || end != port.data() + port.size() || number < 1 || number > 65535)
            return "its port is not a number from 1 to 65535";
    }
    return std::nullopt;
}

std::optional<platform::HttpRequest> APIRequest::urlRequest() const {
    auto outcome = urlRequestOrReason();
    if (auto* request = std::get_if<platform::HttpRequest>(&outcome)) return std::move(*request);
    return std::nullopt;
}

std::variant<platform::HttpRequest, std::string> APIRequest::urlRequestOrReason() const {
    const auto host = SettingsManager::sharedInstance()->apiHost();
    if (!host) return std::string("No api host set.");
    if (const auto problem = hostProblem(*host)) {
        return "Refused to send a request to the api host " + printable(*host) + ": " + *problem + ".";
    }
    const auto base = PelmConstants::apiURL();
    if (!base) return std::string("No api host set.");
    platform::HttpRequest request;
    request.method = method();
    request.url = joinURL(*base, path());
    const auto encoded = formEncode(parameters());
    if (request.method == "GET") {
        if (!encoded.empty())
            request.url += (request.url.find('?') == std::string::npos ? "?" : "&") + encoded;
        // curl takes no longer URL, and would say only "No URL set".
        if (request.url.size() > kMaxURLBytes) {
            return "Refused to send a request whose URL would be " + std::to_string(request.url.size()) +
                   " bytes, more than the " + std::to_string(kMaxURLBytes) + " a URL can have.";
        }
    } else {
        request.body = encoded;
        request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded; charset=utf-8");
    }
    return request;
}

}  // namespace pelm
