#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include <pybind11/pybind11.h>

#include <pelm/platform/linux/linux_platform.hpp>
#include <pelm/platform/run_loop.hpp>

namespace pelm::python {

/// A Python object that may be let go on any thread: its last owner takes the GIL to drop it.
using SharedObject = std::shared_ptr<pybind11::object>;
SharedObject share(pybind11::object object);

/// What the host said about its platform: the settings file, the server's CA, where beacons come from.
struct PlatformChoice {
    std::string appName;
    std::optional<std::filesystem::path> configDirectory, ca;
    platform::BeaconSource source;
    bool operator==(const PlatformChoice& other) const;
};

/// The process's one host: its run loop (the library's main queue), the Linux platform made over it, and
/// the rule that the library is called on the loop's thread. Python may call from any thread: a call made
/// while another thread runs the loop is posted to it and waited for, with the GIL released.
class HostSession {
  public:
    static HostSession& instance();

    platform::RunLoop& loop() { return *loop_; }
    /// Remembered; a platform of this choice is made when the library is next called.
    void choose(PlatformChoice choice);
    const PlatformChoice& choice() const { return choice_; }
    /// Makes and installs the chosen platform unless it is the one installed. Throws std::runtime_error
    /// naming a file that cannot be read.
    void usePlatform();

    /// Runs `task` on the loop's thread and waits for it; at once when no other thread runs the loop.
    void onLoop(const std::function<void()>& task);
    /// Until `done()` holds or `timeout` passes: runs the loop when no one does, or waits for the thread
    /// that does. The GIL is released meanwhile. Raises what a callback raised meanwhile.
    bool wait(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    /// Runs the loop until stop(), `seconds` passed or Ctrl-C; true when Ctrl-C ended it. Raises what a
    /// callback raised.
    bool run(std::optional<double> seconds);
    /// Ends run() (or the wait of another thread); nothing when no one runs the loop.
    void stop();

    /// Calls a Python callback from the loop's thread. What it raises stops the loop and is raised again by
    /// run() or wait(), in the thread that called them.
    template <class... Args>
    void call(const SharedObject& callback, Args&&... args) {
        if (!callback || callback->is_none()) return;
        pybind11::gil_scoped_acquire gil;
        try {
            (*callback)(std::forward<Args>(args)...);
        } catch (pybind11::error_already_set& error) {
            failed(std::move(error));
        }
    }

    /// Lets go of the platform at the interpreter's exit, while Python can still take what it holds.
    void shutdown();

  private:
    HostSession();
    void failed(pybind11::error_already_set error);
    void raisePending();
    bool runsElsewhere() const;
    bool hasPending() const;
    // Marks this thread as the loop's for the call's length.
    class Running;

    std::shared_ptr<platform::RunLoop> loop_;
    PlatformChoice choice_;
    std::optional<PlatformChoice> made_;
    std::shared_ptr<platform::Platform> platform_;
    mutable std::mutex mutex_;
    std::optional<std::thread::id> runner_;
    std::optional<pybind11::error_already_set> pending_;
};

}  // namespace pelm::python
