#pragma once

#include <pelm/export.hpp>

#include <functional>
#include <string>

namespace pelm {

/// Where a host app starts: tell the library its token and server, and it fetches the app's configuration.
/// \ingroup host_api
class PelmSDK {
  public:
    /// Stores token and host at once (before any server call, whatever the server answers), then fetches
    /// the configuration and stores its beacon UUID and vendor key. `completion`, if given, is called once
    /// on the main queue: true when the configuration was fetched and stored. A token or host that is not
    /// UTF-8 text is refused: one log line, nothing stored, and false.
    PELM_EXPORT static void setAppToken(const std::string& token, const std::string& host,
                                        std::function<void(bool successful)> completion = {});
    /// As above, and on failure says why, in a sentence a person can act on: that the server could not be
    /// reached (and curl's reason), that it does not know the token, that it answered with an HTTP error
    /// or with something that is not a configuration, or that the token or host is not text.
    /// `reason` is empty when `successful`.
    PELM_EXPORT static void setAppToken(
        const std::string& token, const std::string& host,
        std::function<void(bool successful, const std::string& reason)> completion);
    /// Hands the analytics property identifier to the analytics bridge, which keeps nothing.
    PELM_EXPORT static void setupGoogleAnalytics(const std::string& trackingID);
};

}  // namespace pelm
