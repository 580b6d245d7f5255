#pragma once

#include <pelm/export.hpp>

#include <functional>
#include <memory>
#include <string>

namespace pelm::platform {

/// Watches whether one host name can be reached. The callbacks may come from any thread.
class PELM_EXPORT ReachabilityWatcher {
  public:
    /// Called with the watcher, from any thread.
    using Callback = std::function<void(ReachabilityWatcher&)>;
    virtual ~ReachabilityWatcher() = default;
    /// Set before starting: called when the host becomes reachable, and when it becomes unreachable.
    virtual void setCallbacks(Callback whenReachable, Callback whenUnreachable) = 0;
    /// False when notifications cannot start.
    virtual bool startNotifier() = 0;
    /// No callback runs once this returns.
    virtual void stopNotifier() = 0;
    /// Whether the host can be reached now.
    virtual bool isReachable() const = 0;
};

/// Makes reachability watchers; none when a watcher cannot be made for the host.
class PELM_EXPORT ReachabilityService {
  public:
    virtual ~ReachabilityService() = default;
    /// A watcher of `host`; none when it cannot be watched.
    virtual std::unique_ptr<ReachabilityWatcher> makeWatcher(const std::string& host) = 0;
};

/// Whether the app may use location services: 0 not determined, 1 restricted, 2 denied, 3 always,
/// 4 when in use.
class PELM_EXPORT LocationAuthorization {
  public:
    virtual ~LocationAuthorization() = default;
    /// The authorisation now: 0 not determined, 1 restricted, 2 denied, 3 always, 4 when in use.
    virtual int authorizationStatus() const = 0;
    /// The answer, if it changes anything, arrives through the observers.
    virtual void requestAlwaysAuthorization() = 0;
    /// Calls `onChange` on the main queue at every change, for as long as the returned handle is kept.
    virtual std::shared_ptr<void> observe(std::function<void(int status)> onChange) = 0;
};

/// The Bluetooth controller's state: 0 unknown, 1 resetting, 2 unsupported, 3 unauthorised, 4 powered off,
/// 5 powered on.
class PELM_EXPORT BluetoothState {
  public:
    virtual ~BluetoothState() = default;
    /// The adapter's state now: 0 unknown, 1 resetting, 2 unsupported, 3 unauthorised, 4 off, 5 on.
    virtual int state() const = 0;
    /// Calls `onChange` on the main queue at every change, for as long as the returned handle is kept.
    virtual std::shared_ptr<void> observe(std::function<void(int state)> onChange) = 0;
};

}  // namespace pelm::platform
