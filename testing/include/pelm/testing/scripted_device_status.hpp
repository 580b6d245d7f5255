#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <pelm/platform/device_status_sources.hpp>
#include <pelm/platform/observer_list.hpp>

namespace pelm::platform {

/// Reachability for tests: the host's answer, whether making or starting fails, and callbacks fired on demand
/// from any thread.
class ScriptedReachability : public ReachabilityService {
  public:
    class Watcher : public ReachabilityWatcher {
      public:
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

    std::atomic<bool> reachable{true};
    bool makeFails = false;
    bool startFails = false;
    std::atomic<int> starts{0}, stops{0};
    std::string lastHost;

    std::unique_ptr<ReachabilityWatcher> makeWatcher(const std::string& host) override {
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

/// A location authorisation the test sets.
class ScriptedLocation : public LocationAuthorization {
  public:
    int status = 0;
    int requests = 0;
    int authorizationStatus() const override { return status; }
    void requestAlwaysAuthorization() override { ++requests; }
    std::shared_ptr<void> observe(std::function<void(int)> onChange) override {
        return observers_.add(std::move(onChange));
    }
    void change(int to) {
        status = to;
        observers_.notify(to);
    }

  private:
    ObserverList<int> observers_;
};

/// A Bluetooth state the test sets.
class ScriptedBluetooth : public BluetoothState {
  public:
    int value = 0;
    int state() const override { return value; }
    std::shared_ptr<void> observe(std::function<void(int)> onChange) override {
        return observers_.add(std::move(onChange));
    }
    void change(int to) {
        value = to;
        observers_.notify(to);
    }

  private:
    ObserverList<int> observers_;
};

}  // namespace pelm::platform
