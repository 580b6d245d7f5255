#pragma once

#include <pelm/export.hpp>

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <pelm/beacons/discovered_beacon.hpp>
#include <pelm/model/content_display_type.hpp>
#include <pelm/model/date.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/status/status_enums.hpp>

namespace pelm {
// Handed on by pointer: the events need only its name. A host that reads one includes
// <pelm/model/content.hpp>.
struct Content;
}  // namespace pelm

/// What happened during a visit, as typed values: the same facts the delegates' status lines tell in words,
/// with the beacon each one concerns. Subscribe with pelm::events::subscribe().
namespace pelm::events {

/// The version of these types. It goes up whenever an event gains, loses or changes a field, so that a
/// host storing events can tell old from new.
inline constexpr int kVersion = 1;

/// A beacon as the library matches it: the proximity UUID and the decimal major and minor, exact texts.
struct BeaconIdentity {
    std::string uuid;   ///< Proximity UUID, upper case, 36 characters.
    std::string major;  ///< Decimal text, as matched.
    std::string minor;  ///< Decimal text, as matched.
    /// Same texts, same beacon.
    friend bool operator==(const BeaconIdentity&, const BeaconIdentity&) = default;
};

/// How far a ranged beacon is, from the platform's distance estimate: under 0.5 m immediate, under 3 m
/// near, beyond that far; unknown when there is no estimate.
enum class Proximity { Unknown, Immediate, Near, Far };

/// The store's region (every beacon of the app's UUID) was entered. `alreadyInside` when the platform found
/// the phone inside when asked, rather than seeing it come in.
struct MainRegionEntered {
    std::string uuid;            ///< The app's proximity UUID.
    bool alreadyInside = false;  ///< Found inside when asked, not seen coming in.
};

/// The store's region was left: the visit is over and its upload starts.
struct MainRegionLeft {
    std::string uuid;  ///< The app's proximity UUID.
};

/// One beacon heard during ranging.
struct RangedBeacon {
    BeaconIdentity beacon;  ///< Which beacon.
    /// dBm
    int rssi = 0;
    /// Estimated distance in metres; negative when unknown.
    double accuracy = -1;
    Proximity proximity = Proximity::Unknown;  ///< From `accuracy`.
};

/// One round of ranging inside the store: every beacon of the app's UUID heard in it.
struct BeaconsRanged {
    std::vector<RangedBeacon> beacons;  ///< As the platform reported them.
};

/// One beacon's own region was entered; its log line opens. `alreadyInside` as for the store's region.
struct SubRegionEntered {
    BeaconIdentity beacon;       ///< The beacon whose region it is.
    bool alreadyInside = false;  ///< Found inside when asked, not seen coming in.
};

/// One beacon's own region was left; its log line closes.
struct SubRegionLeft {
    BeaconIdentity beacon;  ///< The beacon whose region it is.
};

/// Content the server assigned to a beacon, handed to the host app.
struct ContentHandedOn {
    BeaconIdentity beacon;                                       ///< The beacon it belongs to.
    ContentDisplayType displayType = ContentDisplayType::entry;  ///< Entry or exit content.
    std::shared_ptr<const Content> content;                      ///< As the delegate receives it.
};

/// A beacon's content of one display type held back, because the same was handed on within its cool-down.
struct ContentHeldBack {
    BeaconIdentity beacon;                                       ///< The beacon it belongs to.
    ContentDisplayType displayType = ContentDisplayType::entry;  ///< Entry or exit content.
    /// When it may be handed on again.
    Date until;
};

/// A finished visit sent to the server, and whether the server stored it.
struct VisitUploaded {
    Session session;  ///< The visit record, as sent.
    /// The beacon the visit is filed under: the first one whose line closed.
    BeaconIdentity beacon;
    /// One line per beacon visited, as sent.
    std::vector<SessionLog> lines;
    bool stored = false;  ///< Whether the server answered that it stored the visit.
};

/// What a nearby device did not tell: its record carries 0 or "" in each such place, which is no reading.
struct UntoldValues {
    bool transmissionPower = false;  ///< It told no transmission power.
    bool firmwareVersion = false;    ///< It told no firmware version.
    bool batteryLevel = false;       ///< It told no battery level.
};

/// The beacon devices nearby, in the order discovery reported them, as the beacon manager's delegate
/// receives them.
struct NearbyDevices {
    std::vector<DiscoveredBeacon> devices;  ///< As the delegate received them.
    /// For each of `devices` in turn, what it did not tell (all told when the list is shorter).
    std::vector<UntoldValues> untold;
    /// What the device at index `device` of `devices` did not tell.
    UntoldValues untoldOf(std::size_t device) const {
        return device < untold.size() ? untold[device] : UntoldValues{};
    }
};

/// The device status manager's delegate was told whether Bluetooth is on.
struct BluetoothChanged {
    BluetoothStatus status = BluetoothStatus::Unknown;  ///< As told.
};
/// The device status manager's delegate was told whether location use is allowed.
struct LocationChanged {
    LocationStatus status = LocationStatus::Unknown;  ///< As told.
};
/// The device status manager's delegate was told whether the server's host can be reached.
struct ReachabilityChanged {
    ReachableStatus status = ReachableStatus::Unknown;  ///< As told.
};

/// Any one event.
using VisitEventData = std::variant<MainRegionEntered, MainRegionLeft, BeaconsRanged, SubRegionEntered,
                                    SubRegionLeft, ContentHandedOn, ContentHeldBack, VisitUploaded,
                                    NearbyDevices, BluetoothChanged, LocationChanged, ReachabilityChanged>;

/// One event and the main queue's clock when it happened.
struct VisitEvent {
    Date at;              ///< The main queue's clock when it happened.
    VisitEventData data;  ///< What happened.
};

/// Receives every event, on the main queue, in the order they happened. An event reaches the listener
/// before the delegate call that reports the same fact.
class PELM_EXPORT VisitEventListener {
  public:
    virtual ~VisitEventListener();
    /// One event; called on the main queue.
    virtual void onVisitEvent(const VisitEvent& event) = 0;
};

/// Starts sending every event of this process to `listener` (held weakly) until the returned handle is
/// released. Call it on the main queue; events already sent are not repeated.
[[nodiscard]] PELM_EXPORT std::shared_ptr<void> subscribe(
    const std::shared_ptr<VisitEventListener>& listener);

/// "immediate", "near", "far" or "unknown".
PELM_EXPORT const char* proximityName(Proximity proximity);

}  // namespace pelm::events
