#pragma once

#include <pelm/export.hpp>

#include <memory>
#include <string>
#include <vector>

#include <pelm/beacons/discovered_beacon.hpp>
#include <pelm/model/content.hpp>

namespace pelm {

/// What the host app implements to hear from the beacon manager. All calls arrive on the main queue.
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
