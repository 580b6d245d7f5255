#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <pelm/api/api_request.hpp>
#include <pelm/api/response_envelopes.hpp>
#include <pelm/model/app_config.hpp>
#include <pelm/model/content.hpp>
#include <pelm/platform/http_transport.hpp>
#include <pelm/platform/main_queue.hpp>

namespace pelm {

/// The library's one way to the content server. Every operation returns at once and later calls its
/// completion exactly once, on the main queue: true with the payload, or false with none after one error
/// line in the log. A call in flight needs nothing of the client: dropping the client right after a call
/// still completes it.
class PelmAPIClient {
  public:
    /// Why a call failed, and the error line's text.
    struct Failure {
        enum class Kind {
            notSent,     ///< the request could not be made (host, or a URL too long to send)
            noReply,     ///< the server could not be reached or did not answer in time
            status,      ///< it answered with an HTTP status not accepted
            unreadable,  ///< it answered, with a body that is not the expected reply
        };
        Kind kind = Kind::noReply;
        long status = 0;
        std::string text;
    };
    using StatusCompletion = std::function<void(bool successful, std::shared_ptr<StatusResponse> status)>;
    using AppConfigCompletion = std::function<void(bool successful, std::shared_ptr<AppConfig> appConfig)>;
    /// The configuration, or why there is none.
    using AppConfigOutcome =
        std::function<void(std::shared_ptr<AppConfig> appConfig, const Failure* failure)>;
    using ContentByIdCompletion = std::function<void(bool succesful, std::shared_ptr<Content> content)>;
    using ContentByHardwareCompletion = std::function<void(
        bool successful, std::shared_ptr<Content> entryContent, std::shared_ptr<Content> exitContent)>;
    using CreateSessionCompletion = std::function<void(bool successful)>;

    /// Token and host from the shared settings; none (after an error line) when either is missing.
    static std::shared_ptr<PelmAPIClient> make();
    /// Never fails. Uses the installed platform's transport and main queue.
    PelmAPIClient(std::string appToken, std::string apiHost);

    void status(StatusCompletion completion) const;
    void appConfig(AppConfigCompletion completion) const;
    /// As appConfig(), telling the failure: exactly one of the two is given.
    void appConfigOrFailure(AppConfigOutcome outcome) const;
    void contentById(std::int64_t id, std::string user, ContentByIdCompletion completion) const;
    void contentByHardware(std::shared_ptr<Beacon> beacon, std::string user,
                           ContentByHardwareCompletion completion) const;
    void createSession(std::shared_ptr<Session> session, std::string user, std::shared_ptr<Beacon> beacon,
                       std::vector<std::shared_ptr<SessionLog>> sessionLogs,
                       CreateSessionCompletion completion) const;

    const std::string& appToken() const { return appToken_; }
    const std::string& apiHost() const { return apiHost_; }

  private:
    enum class Accepted { Any2xx, Exactly200 };

    template <class Envelope>
    void perform(const APIRequest& request, Accepted accepted,
                 std::function<void(std::shared_ptr<Envelope>)> onSuccess,
                 std::function<void(const Failure&)> onFailure) const;

    std::string appToken_;
    std::string apiHost_;
    std::shared_ptr<platform::HttpTransport> transport_;
    std::shared_ptr<platform::MainQueue> mainQueue_;
};

/// `text` with every app_token= value (of a query or a form) replaced by ***. Only whole values are masked:
/// a token that also occurs as a word elsewhere in the text leaves that word alone.
std::string withoutSecret(std::string text);

}  // namespace pelm
