#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pelm/api/pelm_api_client.hpp>
#include <pelm/events/visit_event.hpp>
#include <pelm/model/beacon.hpp>
#include <pelm/model/content.hpp>
#include <pelm/model/date.hpp>
#include <pelm/model/session.hpp>
#include <pelm/model/session_log.hpp>
#include <pelm/platform/clock.hpp>
#include <pelm/session/pelm_session_manager_delegate.hpp>

namespace pelm {

/// The visit logic: which beacons are in range, their entry and exit content (held back while it cools
/// down), one log line per beacon visit, and the upload of a finished visit. Runs on the main queue only.
///
/// Two beacons, or a beacon and a log line, match when uuid, major and minor are present on both sides and
/// equal as exact text; a beacon missing any of them matches nothing, not even itself.
///
/// A server call in flight keeps the manager alive until its completion has run; the delegate is held
/// weakly (its owner owns this manager) and is skipped when it is gone.
class PelmSessionManager : public std::enable_shared_from_this<PelmSessionManager> {
  public:
    /// Content of one beacon and display type held back until `showAfter`.
    struct CoolDownBeacon {
        std::shared_ptr<Beacon> beacon;
        Content::DisplayType contentType = Content::DisplayType::entry;
        Date showAfter;
    };

    /// With the API client made from the stored token and host (none when either is missing, for good).
    static std::shared_ptr<PelmSessionManager> make();
    /// With a client of the caller's choosing; none means no lookups and no uploads.
    static std::shared_ptr<PelmSessionManager> make(std::shared_ptr<PelmAPIClient> client);

    std::weak_ptr<PelmSessionManagerDelegate> delegate;

    /// A beacon heard by ranging. True when it was not in range and has been added (its entry content is
    /// looked up unless cooling down); false when a matching beacon is already in range.
    bool addBeacon(std::shared_ptr<Beacon> beacon);
    /// A beacon's region was left. True when a matching beacon was in range and has been removed (its exit
    /// content is looked up unless cooling down).
    bool removeBeacon(const std::shared_ptr<Beacon>& beacon);
    /// Monitoring stopped: no beacon is in range any more, and none is looked up for leaving. A beacon heard
    /// after monitoring starts again is new.
    void forgetBeaconsInRange() { discoveredBeacons_.clear(); }
    /// The beacon's sub-region was entered: opens a log line.
    void addEntryEvent(const std::shared_ptr<Beacon>& beacon);
    /// The beacon's sub-region was left: closes the last open log line of that beacon.
    void addExitEvent(const std::shared_ptr<Beacon>& beacon);
    /// The main region was left: closes the first open line and uploads the finished lines. True when an
    /// upload was sent; `answered`, if given, is then called with the server's answer.
    bool finishSession(std::function<void(bool stored)> answered = {});
    /// Whether lines were recorded that are not yet uploaded.
    bool visitInProgress() const { return !sessionLogs_.empty() || !unfinishedSessionLogs_.empty(); }
    /// When an upload awaits the server's answer, true, and `answered` is called with that answer.
    bool whenUploaded(std::function<void(bool stored)> answered);
    /// A visit record starting at `startTime` and ending now.
    std::shared_ptr<Session> initSession(Date startTime) const;

    // What the manager holds, for diagnostics and tests.
    const std::vector<std::shared_ptr<Beacon>>& discoveredBeacons() const { return discoveredBeacons_; }
    const std::vector<CoolDownBeacon>& coolDownBeacons() const { return coolDownBeacons_; }
    const std::vector<std::shared_ptr<SessionLog>>& sessionLogs() const { return sessionLogs_; }
    const std::vector<std::shared_ptr<SessionLog>>& unfinishedSessionLogs() const {
        return unfinishedSessionLogs_;
    }
    bool hasAPIClient() const { return pelmAPIClient_ != nullptr; }

    PelmSessionManager(std::shared_ptr<PelmAPIClient> client, std::shared_ptr<platform::Clock> clock);

  private:
    bool beaconInArray(const Beacon& beacon) const;
    std::optional<std::size_t> beaconIndexInArray(const Beacon& beacon) const;
    void addBeaconToCoolDown(CoolDownBeacon record);
    void removeBeaconFromCoolDown(const CoolDownBeacon& record);
    std::optional<std::size_t> beaconIndexInCoolDownArray(const CoolDownBeacon& record) const;
    std::optional<CoolDownBeacon> beaconInCoolDownArray(const Beacon& beacon,
                                                        Content::DisplayType type) const;
    bool beaconIsHot(const CoolDownBeacon& record);
    void contentStep(const std::shared_ptr<Beacon>& beacon, Content::DisplayType type);
    void contentForBeacon(const std::shared_ptr<Beacon>& beacon, Content::DisplayType type);
    void onContent(const std::shared_ptr<Beacon>& beacon, Content::DisplayType type, bool successful,
                   const std::shared_ptr<Content>& entryContent, const std::shared_ptr<Content>& exitContent);
    std::shared_ptr<SessionLog> removeFromUnfinishedLogs(std::size_t position);
    void finishFirstEntryEvent();
    void onUploaded(bool successful, events::VisitUploaded& sent);
    void sendLog(const std::string& status, bool critical) const;
    Date now() const { return clock_->now(); }

    std::shared_ptr<PelmAPIClient> pelmAPIClient_;
    std::shared_ptr<platform::Clock> clock_;
    std::vector<std::shared_ptr<Beacon>> discoveredBeacons_;
    std::vector<CoolDownBeacon> coolDownBeacons_;
    std::vector<std::shared_ptr<SessionLog>> sessionLogs_;
    std::vector<std::shared_ptr<SessionLog>> unfinishedSessionLogs_;
    int uploadsInFlight_ = 0;
    std::vector<std::function<void(bool stored)>> uploadWaiters_;
};

}  // namespace pelm
