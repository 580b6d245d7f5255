#pragma once

#include <pelm/export.hpp>

#include <memory>
#include <string>
#include <vector>

#include <pelm/beacons/discovered_beacon.hpp>

namespace pelm {

// A content is handed on by pointer, so the delegate's header needs only its name; a host that reads one
// includes <pelm/model/content.hpp>, which brings the JSON of its extra data.
struct Content;

/// What the host app implements to hear from the beacon manager. All calls arrive on the main queue.
/// \ingroup host_api
class PELM_EXPORT PelmBeaconManagerDelegate {
  public:
    virtual ~PelmBeaconManagerDelegate() = default;
    /// Content found for a beacon; the host app decides how to show it.
    virtual void didFindContent(std::shared_ptr<Content> content) = 0;
    /// A status line of the beacon manager or the session engine.
    virtual void didReceiveLog(const std::string& text, bool critical) = 0;
    /// Nearby beacon devices; never empty.
    virtual void didDiscoverBeacons(const std::vector<DiscoveredBeacon>& beacons) = 0;
};

}  // namespace pelm
