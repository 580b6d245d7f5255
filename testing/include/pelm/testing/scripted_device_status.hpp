#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include <pelm/platform/device_status_sources.hpp>

namespace pelm::testing {

/// Reachability for tests: the host's answer, whether making or starting fails, and callbacks fired on demand
/// from any thread.
/// \ingroup testing_kit
class ScriptedReachability : public platform::ReachabilityService {
  public:
    /// The watcher of one host, made by makeWatcher().
    class Watcher : public platform::ReachabilityWatcher {
      public:
        /// A watcher answering as `owner` says.
        explicit Watcher(ScriptedReachability& owner) : owner_(owner) {}
        ~Watcher() override { owner_.watcher_ = nullptr; }
        void setCallbacks(Callback whenReachable, Callback whenUnreachable) override {
            reachable_ = std::move(whenReachable);
            unreachable_ = std::move(whenUnreachable);
        }
        bool startNotifier() override {
            ++owner_.starts;
            notifying_ = !owner_.startFails;
            return notifying_;
        }
        void stopNotifier() override {
            ++owner_.stops;
            notifying_ = false;
        }
        bool isReachable() const override { return owner_.reachable.load(); }
        /// Fires one callback as the platform would, if notifications run.
        void fire(bool reachableKind) {
            if (!notifying_) return;
            auto& callback = reachableKind ? reachable_ : unreachable_;
            if (callback) callback(*this);
        }

      private:
        ScriptedReachability& owner_;
        Callback reachable_, unreachable_;
        std::atomic<bool> notifying_{false};
    };

    /// The answer of every watcher's isReachable().
    std::atomic<bool> reachable{true};
    /// Whether makeWatcher() gives none, as for a host the platform cannot watch.
    bool makeFails = false;
    /// Whether a watcher's startNotifier() fails.
    bool startFails = false;
    /// How often notifiers were started.
    std::atomic<int> starts{0};
    /// How often notifiers were stopped.
    std::atomic<int> stops{0};
    /// The host of the last makeWatcher().
    std::string lastHost;

    std::unique_ptr<platform::ReachabilityWatcher> makeWatcher(const std::string& host) override {
        lastHost = host;
        if (makeFails) return nullptr;
        auto watcher = std::make_unique<Watcher>(*this);
        watcher_ = watcher.get();
        return watcher;
    }
    /// The watcher made last, while it lives.
    Watcher* watcher() const { return watcher_; }

  private:
    Watcher* watcher_ = nullptr;
};

/// Observers of a number a test sets: what ScriptedLocation and ScriptedBluetooth tell the library.
/// \ingroup testing_kit
class ScriptedObservers {
  public:
    ScriptedObservers();
    /// Adds `observer`; it is called until the returned handle is let go.
    std::shared_ptr<void> add(std::function<void(int)> observer);
    /// Calls every observer with `value`.
    void notify(int value) const;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

/// A location authorisation the test sets.
/// \ingroup testing_kit
class ScriptedLocation : public platform::LocationAuthorization {
  public:
    /// The authorisation answered, the platform's number (0: not determined).
    int status = 0;
    /// How often the library asked for authorisation.
    int requests = 0;
    int authorizationStatus() const override { return status; }
    void requestAlwaysAuthorization() override { ++requests; }
    /// Calls `onChange` at every change() while the handle is kept.
    std::shared_ptr<void> observe(std::function<void(int)> onChange) override {
        return observers_.add(std::move(onChange));
    }
    /// Sets the status and tells the observers.
    void change(int to) {
        status = to;
        observers_.notify(to);
    }

  private:
    ScriptedObservers observers_;
};

/// A Bluetooth state the test sets.
/// \ingroup testing_kit
class ScriptedBluetooth : public platform::BluetoothState {
  public:
    /// The state answered, the platform's number (5: powered on).
    int value = 0;
    int state() const override { return value; }
    /// Calls `onChange` at every change() while the handle is kept.
    std::shared_ptr<void> observe(std::function<void(int)> onChange) override {
        return observers_.add(std::move(onChange));
    }
    /// Sets the state and tells the observers.
    void change(int to) {
        value = to;
        observers_.notify(to);
    }

  private:
    ScriptedObservers observers_;
};

}  // namespace pelm::testing
