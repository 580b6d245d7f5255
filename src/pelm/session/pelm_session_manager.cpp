#include <pelm/session/pelm_session_manager.hpp>

#include <utility>

#include <pelm/model/json_date_transform.hpp>
#include <pelm/platform/platform.hpp>
#include <pelm/sdk/pelm_constants.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include <pelm/events/visit_event_hub.hpp>

namespace pelm {
namespace {

// Exact text identity; a missing text on either side never matches.
template <class A, class B>
bool sameIdentity(const A& a, const B& b) {
    return a.uuid && a.major && a.minor && b.uuid && b.major && b.minor && *a.uuid == *b.uuid &&
           *a.major == *b.major && *a.minor == *b.minor;
}

bool hasIdentity(const Beacon& beacon) {
    return beacon.uuid && beacon.major && beacon.minor;
}

}  // namespace

std::shared_ptr<PelmSessionManager> PelmSessionManager::make() {
    return make(PelmAPIClient::make());
}

std::shared_ptr<PelmSessionManager> PelmSessionManager::make(std::shared_ptr<PelmAPIClient> client) {
    return std::make_shared<PelmSessionManager>(std::move(client), platform::current()->mainQueue);
}

PelmSessionManager::PelmSessionManager(std::shared_ptr<PelmAPIClient> client,
                                       std::shared_ptr<platform::Clock> clock)
    : pelmAPIClient_(std::move(client)), clock_(std::move(clock)) {}

// --- beacons in range -------------------------------------------------------------------------------------

bool PelmSessionManager::addBeacon(std::shared_ptr<Beacon> beacon) {
    if (!beacon || beaconInArray(*beacon)) return false;
    discoveredBeacons_.push_back(beacon);
    contentStep(beacon, Content::DisplayType::entry);
    return true;
}

bool PelmSessionManager::removeBeacon(const std::shared_ptr<Beacon>& beacon) {
    if (!beacon) return false;
    const auto position = beaconIndexInArray(*beacon);
    if (!position) return false;
    // From here on the stored beacon is used; it carries the same identity texts as the argument.
    const auto stored = discoveredBeacons_[*position];
    discoveredBeacons_.erase(discoveredBeacons_.begin() + static_cast<std::ptrdiff_t>(*position));
    contentStep(stored, Content::DisplayType::exit);
    return true;
}

// Asked of the beacons themselves, not of a copy of their keys: a host may change a Beacon it handed in, and
// the list must then answer for what that beacon is now.
bool PelmSessionManager::beaconInArray(const Beacon& beacon) const {
    return beaconIndexInArray(beacon).has_value();
}

std::optional<std::size_t> PelmSessionManager::beaconIndexInArray(const Beacon& beacon) const {
    if (!hasIdentity(beacon)) return std::nullopt;
    for (std::size_t i = 0; i < discoveredBeacons_.size(); ++i) {
        if (sameIdentity(*discoveredBeacons_[i], beacon)) return i;
    }
    return std::nullopt;
}

// --- cool-down and content --------------------------------------------------------------------------------

void PelmSessionManager::contentStep(const std::shared_ptr<Beacon>& beacon, Content::DisplayType type) {
    const auto record = beaconInCoolDownArray(*beacon, type);
    // beaconIsHot drops an expired record as it answers.
    if (!record || !beaconIsHot(*record)) contentForBeacon(beacon, type);
}

std::optional<PelmSessionManager::CoolDownBeacon> PelmSessionManager::beaconInCoolDownArray(
    const Beacon& beacon, Content::DisplayType type) const {
    for (const auto& record : coolDownBeacons_) {
        if (record.contentType == type && sameIdentity(*record.beacon, beacon)) return record;
    }
    return std::nullopt;
}

std::optional<std::size_t> PelmSessionManager::beaconIndexInCoolDownArray(
    const CoolDownBeacon& record) const {
    for (std::size_t i = 0; i < coolDownBeacons_.size(); ++i) {
        const auto& candidate = coolDownBeacons_[i];
        if (candidate.contentType == record.contentType && sameIdentity(*candidate.beacon, *record.beacon))
            return i;
    }
    return std::nullopt;
}

void PelmSessionManager::addBeaconToCoolDown(CoolDownBeacon record) {
    coolDownBeacons_.push_back(std::move(record));
}

void PelmSessionManager::removeBeaconFromCoolDown(const CoolDownBeacon& record) {
    if (const auto position = beaconIndexInCoolDownArray(record)) {
        coolDownBeacons_.erase(coolDownBeacons_.begin() + static_cast<std::ptrdiff_t>(*position));
    }
}

bool PelmSessionManager::beaconIsHot(const CoolDownBeacon& record) {
    if (isGreaterThanDate(record.showAfter, now())) {
        events::emit([&] {
            return events::ContentHeldBack{events::identityOf(*record.beacon), record.contentType,
                                           record.showAfter};
        });
        sendLog("Beacon is hot until: " + dateDescription(record.showAfter), false);
        return true;
    }
    sendLog("Beacon is cold, removing from array", false);
    removeBeaconFromCoolDown(record);
    return false;
}

void PelmSessionManager::contentForBeacon(const std::shared_ptr<Beacon>& beacon, Content::DisplayType type) {
    const auto user = SettingsManager::sharedInstance()->userID();
    if (!pelmAPIClient_) return;
    pelmAPIClient_->contentByHardware(
        beacon, user, [self = shared_from_this(), beacon, type](bool ok, auto entry, auto exit) {
            self->onContent(beacon, type, ok, entry, exit);
        });
}

void PelmSessionManager::onContent(const std::shared_ptr<Beacon>& beacon, Content::DisplayType type,
                                   bool successful, const std::shared_ptr<Content>& entryContent,
                                   const std::shared_ptr<Content>& exitContent) {
    if (!successful) return;  // the next trigger looks up again
    const auto& content = type == Content::DisplayType::entry ? entryContent : exitContent;
    if (!content) return;
    events::emit([&] { return events::ContentHandedOn{events::identityOf(*beacon), type, content}; });
    if (const auto receiver = delegate.lock()) receiver->didFindNewContent(content, beacon);
    if (content->coolDownTime) {
        addBeaconToCoolDown({beacon, type, dateByAddingSeconds(now(), *content->coolDownTime)});
    }
}

// --- the visit log ----------------------------------------------------------------------------------------

void PelmSessionManager::addEntryEvent(const std::shared_ptr<Beacon>& beacon) {
    if (!beacon || !hasIdentity(*beacon)) return;
    // A second entry without an exit opens a second line: the platform may report both state and entry.
    unfinishedSessionLogs_.push_back(
        std::make_shared<SessionLog>(*beacon->uuid, *beacon->major, *beacon->minor, now()));
    sendLog("Session Log: major: " + *beacon->major + " minor: " + *beacon->minor + " uuid: " + *beacon->uuid,
            false);
}

void PelmSessionManager::addExitEvent(const std::shared_ptr<Beacon>& beacon) {
    if (!beacon || !hasIdentity(*beacon)) return;
    // The last matching open line is the one closed; searching from the back finds it first.
    std::optional<std::size_t> position;
    for (std::size_t i = unfinishedSessionLogs_.size(); i-- > 0;) {
        if (sameIdentity(*unfinishedSessionLogs_[i], *beacon)) {
            position = i;
            break;
        }
    }
    if (!position) return;
    const auto line = removeFromUnfinishedLogs(*position);
    line->exitTime = now();
    sessionLogs_.push_back(line);
}

std::shared_ptr<SessionLog> PelmSessionManager::removeFromUnfinishedLogs(std::size_t position) {
    auto line = unfinishedSessionLogs_[position];
    unfinishedSessionLogs_.erase(unfinishedSessionLogs_.begin() + static_cast<std::ptrdiff_t>(position));
    return line;
}

std::shared_ptr<Session> PelmSessionManager::initSession(Date startTime) const {
    auto session = std::make_shared<Session>();
    session->appVersion = SettingsManager::sharedInstance()->appVersion();
    session->sdkVersion = std::string(PelmConstants::sdkVersion);
    session->operatingSystem = std::string(PelmConstants::operatingSystem);
    session->startTime = startTime;
    session->endTime = now();
    return session;
}

void PelmSessionManager::finishFirstEntryEvent() {
    if (unfinishedSessionLogs_.empty()) return;
    const auto& first = unfinishedSessionLogs_.front();
    if (first->exitTime) return;
    // Closed and sent, but left among the open lines: a second finish before the upload completes must
    // not append it again.
    first->exitTime = now();
    sessionLogs_.push_back(first);
}

bool PelmSessionManager::finishSession(std::function<void(bool stored)> answered) {
    finishFirstEntryEvent();
    if (sessionLogs_.empty()) {
        sendLog("Cant' finish session, session logs array is empty", true);
        return false;
    }
    const auto& first = *sessionLogs_.front();
    if (!first.uuid || !first.major || !first.minor || !first.entranceTime) return false;
    auto beacon = std::make_shared<Beacon>(*first.uuid, *first.major, *first.minor);
    auto session = initSession(*first.entranceTime);
    const auto user = SettingsManager::sharedInstance()->userID();
    if (!pelmAPIClient_) return false;  // the lines stay for a later upload
    // What was sent, as the event will tell it; the lines themselves may change before the answer.
    // Filled whether or not anyone listens now: a listener may subscribe before the answer comes.
    auto sent = std::make_shared<events::VisitUploaded>();
    sent->session = *session;
    sent->beacon = events::identityOf(*beacon);
    for (const auto& line : sessionLogs_) sent->lines.push_back(*line);
    pelmAPIClient_->createSession(
        session, user, beacon, sessionLogs_,
        [self = shared_from_this(), sent](bool ok) { self->onUploaded(ok, *sent); });
    ++uploadsInFlight_;
    if (answered) uploadWaiters_.push_back(std::move(answered));
    return true;
}

bool PelmSessionManager::whenUploaded(std::function<void(bool stored)> answered) {
    if (uploadsInFlight_ == 0) return false;
    uploadWaiters_.push_back(std::move(answered));
    return true;
}

void PelmSessionManager::onUploaded(bool successful, events::VisitUploaded& sent) {
    sent.stored = successful;
    events::emit([&] { return std::move(sent); });
    if (successful) {
        sendLog("Session upload successful finished", false);
    } else {
        sendLog("Failed to upload session", true);
    }
    // Whatever happened, the visit is over: lines recorded meanwhile go with it.
    sessionLogs_.clear();
    unfinishedSessionLogs_.clear();
    --uploadsInFlight_;
    for (auto& waiter : std::exchange(uploadWaiters_, {})) waiter(successful);
}

void PelmSessionManager::sendLog(const std::string& status, bool critical) const {
    if (const auto receiver = delegate.lock()) receiver->didChangeSessionStatus(status, critical);
}

}  // namespace pelm
