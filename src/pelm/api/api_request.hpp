#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include <pelm/model/beacon.hpp>
#include <pelm/model/json.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/platform/http_transport.hpp>

namespace pelm {

/// One call to the content server, and the HTTP request it becomes. The token and user travel as ordinary
/// parameters; no call sets an authentication header.
class APIRequest {
  public:
    /// Whether the server answers for the app: GET status.
    struct Status {
        std::string appToken;
    };
    /// The app's configuration (beacon UUID, vendor key, cool-down).
    struct AppConfig {
        std::string appToken;
    };
    /// One content record by its id, for `user`.
    struct ContentById {
        std::string appToken;
        std::int64_t id = 0;
        std::string user;
    };
    /// The content that belongs to a beacon, for `user`.
    struct ContentByHardware {
        std::string appToken;
        std::shared_ptr<Beacon> beacon;
        std::string user;
    };
    /// One store visit with its lines, uploaded when the user leaves.
    struct CreateSession {
        std::string appToken;
        std::shared_ptr<Session> session;
        std::string user;
        std::shared_ptr<Beacon> beacon;
        std::vector<std::shared_ptr<SessionLog>> sessionLogs;
    };
    using Case = std::variant<Status, AppConfig, ContentById, ContentByHardware, CreateSession>;

    /// A request is its case: any of the five converts.
    template <class C>
    requires std::is_constructible_v<Case, C&&> APIRequest(C&& value)
        : case_(std::forward<C>(value)) {}  // NOLINT(google-explicit-constructor)

    const Case& value() const { return case_; }
    /// "GET" or "POST".
    std::string method() const;
    /// "/api/v1" and the endpoint.
    std::string path() const;
    /// The parameters by key, before encoding.
    JSON parameters() const;

    /// The finished request for the host stored now; none when no host is stored or the stored host is not
    /// a host (see hostProblem).
    std::optional<platform::HttpRequest> urlRequest() const;
    /// The same, or the log text that says why there is none.
    std::variant<platform::HttpRequest, std::string> urlRequestOrReason() const;
    /// The longest URL a request may have: curl's own limit.
    static constexpr std::size_t kMaxURLBytes = 8'000'000;

    /// Why `host` cannot be where requests go, or none when it can. A host is a name or address with an
    /// optional port ("shop.example", "10.0.0.7:8443", "[::1]:8443"), optionally followed by "/" or a
    /// query that every request carries. A scheme, a path, user info, a fragment, white space, control
    /// characters or an empty host would send the app token somewhere the host app never named.
    static std::optional<std::string> hostProblem(std::string_view host);

  private:
    Case case_;
};

}  // namespace pelm
