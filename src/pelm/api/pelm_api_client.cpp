#include <pelm/api/pelm_api_client.hpp>

#include <variant>

#include <pelm/api/form_encoding.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/sdk/log.hpp>
#include <pelm/sdk/settings_manager.hpp>

namespace pelm {
namespace {

using Failure = PelmAPIClient::Failure;

// The envelope a reply makes, or why it makes none.
template <class Envelope>
std::variant<std::shared_ptr<Envelope>, Failure> judge(const platform::HttpReply& reply, bool exactly200) {
    using Kind = Failure::Kind;
    if (reply.error) {
        switch (reply.failure) {
            case platform::HttpReply::Failure::badReply:
                return Failure{Kind::unreadable, reply.status, *reply.error};
            case platform::HttpReply::Failure::notSent:
                return Failure{Kind::notSent, 0, *reply.error};
            case platform::HttpReply::Failure::noConnection:
                break;
        }
        return Failure{Kind::noReply, 0, *reply.error};
    }
    const bool accepted = exactly200 ? reply.status == 200 : (reply.status >= 200 && reply.status <= 299);
    if (!accepted) {
        return Failure{Kind::status, reply.status,
                       "Response status code was unacceptable: " + std::to_string(reply.status) + "."};
    }
    const auto unreadable = [&](const char* why) {
        return Failure{Kind::unreadable, reply.status, std::string("The reply could not be read: ") + why};
    };
    if (reply.body.empty()) return unreadable("its body is empty.");
    const auto parsed = parseJSONText(reply.body);
    if (!parsed) {
        // Nesting past what the parser takes is valid JSON all the same: say which it is.
        const auto problem = jsonTextProblem(reply.body);
        if (problem && problem->starts_with("it nests deeper")) {
            return Failure{Kind::unreadable, reply.status,
                           "The reply could not be read: its body" + problem->substr(2) + "."};
        }
        return unreadable("its body is not valid JSON.");
    }
    if (!parsed->is_object()) return unreadable("its body is not a JSON object.");
    return Envelope::fromJSON(*parsed);
}

}  // namespace

std::string withoutSecret(std::string text) {
    // The token travels only as the value of app_token= (in a query or a form), and only there is it masked:
    // masking its text wherever it occurs would turn a token like "code" into holes in every line.
    for (auto at = text.find("app_token="); at != std::string::npos; at = text.find("app_token=", at + 1)) {
        const auto start = at + 10;
        const auto end = text.find_first_of("& \"'#", start);
        text.replace(start, (end == std::string::npos ? text.size() : end) - start, "***");
    }
    return text;
}

std::shared_ptr<PelmAPIClient> PelmAPIClient::make() {
    const auto settings = SettingsManager::sharedInstance();
    const auto token = settings->appToken();
    if (!token) {
        Log::error("No app token set.");
        return nullptr;
    }
    const auto host = settings->apiHost();
    if (!host) {
        Log::error("No api host set.");
        return nullptr;
    }
    return std::make_shared<PelmAPIClient>(*token, *host);
}

PelmAPIClient::PelmAPIClient(std::string appToken, std::string apiHost)
    : appToken_(std::move(appToken)),
      apiHost_(std::move(apiHost)),
      transport_(platform::current()->http),
      mainQueue_(platform::current()->mainQueue) {}

template <class Envelope>
void PelmAPIClient::perform(const APIRequest& request, Accepted accepted,
                            std::function<void(std::shared_ptr<Envelope>)> onSuccess,
                            std::function<void(const Failure&)> onFailure) const {
    // Everything the reply needs is captured here; the client itself may be gone by then.
    auto fail = [onFailure = std::move(onFailure)](Failure failure) {
        failure.text = withoutSecret(std::move(failure.text));
        Log::error(failure.text);
        onFailure(failure);
    };
    auto finish = [exactly200 = accepted == Accepted::Exactly200, onSuccess = std::move(onSuccess),
                   fail](const platform::HttpReply& reply) {
        auto outcome = judge<Envelope>(reply, exactly200);
        if (auto* envelope = std::get_if<std::shared_ptr<Envelope>>(&outcome))
            return onSuccess(std::move(*envelope));
        fail(std::get<Failure>(std::move(outcome)));
    };
    auto http = request.urlRequestOrReason();
    if (auto* reason = std::get_if<std::string>(&http)) {
        mainQueue_->post([fail = std::move(fail), reason = std::move(*reason)] {
            fail(Failure{Failure::Kind::notSent, 0, reason});
        });
        return;
    }
    transport_->send(std::get<platform::HttpRequest>(std::move(http)), std::move(finish));
}

void PelmAPIClient::status(StatusCompletion completion) const {
    perform<StatusResponse>(
        APIRequest::Status{appToken_}, Accepted::Any2xx,
        [completion](std::shared_ptr<StatusResponse> envelope) {
            if (completion) completion(true, std::move(envelope));
        },
        [completion](const Failure&) {
            if (completion) completion(false, nullptr);
        });
}

void PelmAPIClient::appConfig(AppConfigCompletion completion) const {
    perform<AppConfigResponse>(
        APIRequest::AppConfig{appToken_}, Accepted::Any2xx,
        [completion](std::shared_ptr<AppConfigResponse> envelope) {
            if (completion) completion(true, envelope->appConfig);
        },
        [completion](const Failure&) {
            if (completion) completion(false, nullptr);
        });
}

void PelmAPIClient::appConfigOrFailure(AppConfigOutcome outcome) const {
    perform<AppConfigResponse>(
        APIRequest::AppConfig{appToken_}, Accepted::Any2xx,
        [outcome](std::shared_ptr<AppConfigResponse> envelope) {
            // A reply without a configuration is a configuration without values.
            outcome(envelope->appConfig ? envelope->appConfig : std::make_shared<AppConfig>(), nullptr);
        },
        [outcome](const Failure& failure) { outcome(nullptr, &failure); });
}

void PelmAPIClient::contentById(std::int64_t id, std::string user, ContentByIdCompletion completion) const {
    perform<ContentByIdResponse>(
        APIRequest::ContentById{appToken_, id, std::move(user)}, Accepted::Exactly200,
        [completion](std::shared_ptr<ContentByIdResponse> envelope) {
            if (completion) completion(true, envelope->content);
        },
        [completion](const Failure&) {
            if (completion) completion(false, nullptr);
        });
}

void PelmAPIClient::contentByHardware(std::shared_ptr<Beacon> beacon, std::string user,
                                      ContentByHardwareCompletion completion) const {
    perform<ContentByHardwareResponse>(
        APIRequest::ContentByHardware{appToken_, std::move(beacon), std::move(user)}, Accepted::Exactly200,
        [completion](std::shared_ptr<ContentByHardwareResponse> envelope) {
            if (completion) completion(true, envelope->entryContent, envelope->exitContent);
        },
        [completion](const Failure&) {
            if (completion) completion(false, nullptr, nullptr);
        });
}

void PelmAPIClient::createSession(std::shared_ptr<Session> session, std::string user,
                                  std::shared_ptr<Beacon> beacon,
                                  std::vector<std::shared_ptr<SessionLog>> sessionLogs,
                                  CreateSessionCompletion completion) const {
    perform<SessionResponse>(
        APIRequest::CreateSession{appToken_, std::move(session), std::move(user), std::move(beacon),
                                  std::move(sessionLogs)},
        Accepted::Any2xx,
        [completion](std::shared_ptr<SessionResponse>) {
            if (completion) completion(true);
        },
        [completion](const Failure&) {
            if (completion) completion(false);
        });
}

}  // namespace pelm
