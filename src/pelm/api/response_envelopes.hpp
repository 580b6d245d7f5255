#pragma once

#include <memory>
#include <optional>
#include <string>

#include <pelm/model/app_config.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/record_json.hpp>

namespace pelm {

/// The "status" member of every reply. Not part of judging a reply: a 200 with "error" still succeeds.
enum class APIResponseStatus { Successful, Error };

/// The texts of APIResponseStatus on the wire.
template <>
struct RawValues<APIResponseStatus> {
    static constexpr std::array table{
        std::pair{APIResponseStatus::Successful, std::string_view{"successful"}},
        std::pair{APIResponseStatus::Error, std::string_view{"error"}}};
};

/// The reply to a status call: the server's version texts.
class StatusResponse : public Mappable<StatusResponse> {
  public:
    std::optional<APIResponseStatus> status;
    std::optional<std::string> version;
    std::optional<std::string> apiVersion;
    std::optional<std::string> gitRevision;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("status", self.status);
        map("version", self.version);
        map("api_version", self.apiVersion);
        map("git_revision", self.gitRevision);
    }
};

/// The reply to an app configuration call: the configuration under "app_config".
class AppConfigResponse : public Mappable<AppConfigResponse> {
  public:
    std::optional<APIResponseStatus> status;
    std::shared_ptr<AppConfig> appConfig;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("status", self.status);
        map("app_config", self.appConfig);
    }
};

/// The reply to a content-by-id call: the content under "content".
class ContentByIdResponse : public Mappable<ContentByIdResponse> {
  public:
    std::optional<APIResponseStatus> status;
    std::shared_ptr<Content> content;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("status", self.status);
        map("content", self.content);
    }
};

/// The reply to a content-by-hardware call: the beacon's entry and exit content. Note the word order:
/// fields entry/exit first, keys content_ first.
class ContentByHardwareResponse : public Mappable<ContentByHardwareResponse> {
  public:
    std::optional<APIResponseStatus> status;
    std::shared_ptr<Content> entryContent;
    std::shared_ptr<Content> exitContent;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("status", self.status);
        map("content_entry", self.entryContent);
        map("content_exit", self.exitContent);
    }
};

/// The reply to a session upload: only its status.
class SessionResponse : public Mappable<SessionResponse> {
  public:
    std::optional<APIResponseStatus> status;

    template <class Self, class Map>
    static void mapping(Self& self, Map& map) {
        map("status", self.status);
    }
};

}  // namespace pelm
