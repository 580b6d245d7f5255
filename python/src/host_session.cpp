#include "host_session.hpp"

#include <pelm/platform/platform.hpp>

namespace py = pybind11;

namespace pelm::python {

SharedObject share(py::object object) {
    return SharedObject(new py::object(std::move(object)), [](py::object* held) {
        // After the interpreter is gone there is nothing to give the object back to.
        if (_Py_IsFinalizing()) {
            held->release();
        } else {
            py::gil_scoped_acquire gil;
            *held = py::object();
        }
        delete held;
    });
}

bool PlatformChoice::operator==(const PlatformChoice& other) const {
    return appName == other.appName && configDirectory == other.configDirectory && ca == other.ca &&
           source.kind == other.source.kind && source.file == other.source.file;
}

class HostSession::Running {
  public:
    explicit Running(HostSession& session) : session_(session) {
        const std::lock_guard lock(session_.mutex_);
        if (session_.runner_) throw std::logic_error("the pelm loop is already running");
        session_.runner_ = std::this_thread::get_id();
    }
    ~Running() {
        const std::lock_guard lock(session_.mutex_);
        session_.runner_.reset();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

  private:
    HostSession& session_;
};

HostSession& HostSession::instance() {
    // Never destroyed: shutdown() lets go of what it holds while Python still runs.
    static auto* session = new HostSession();
    return *session;
}

HostSession::HostSession() : loop_(std::make_shared<platform::RunLoop>()) {}

void HostSession::choose(PlatformChoice choice) {
    choice_ = std::move(choice);
}

void HostSession::usePlatform() {
    if (made_ && *made_ == choice_) return;
    platform::LinuxPlatformOptions options;
    options.appName = choice_.appName;
    options.configDirectory = choice_.configDirectory;
    options.extraCABundle = choice_.ca;
    options.beaconSource = choice_.source;
    options.mainQueue = loop_;
    std::shared_ptr<platform::Platform> made;
    onLoop([&] {
        made = platform::makeLinuxPlatform(options);
        platform::install(made);
    });
    platform_ = std::move(made);
    made_ = choice_;
}

bool HostSession::runsElsewhere() const {
    const std::lock_guard lock(mutex_);
    return runner_ && *runner_ != std::this_thread::get_id();
}

void HostSession::onLoop(const std::function<void()>& task) {
    if (!runsElsewhere()) return task();
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    loop_->post([task, done] {
        try {
            task();
            done->set_value();
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    });
    py::gil_scoped_release unlocked;
    finished.get();
}

bool HostSession::wait(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    bool held = false;
    if (runsElsewhere()) {
        py::gil_scoped_release unlocked;
        const auto end = std::chrono::steady_clock::now() + timeout;
        while (!(held = done()) && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    } else {
        const Running running(*this);
        py::gil_scoped_release unlocked;
        held = loop_->runUntil([&] { return done() || hasPending(); }, timeout) && done();
    }
    raisePending();
    return held;
}

bool HostSession::run(std::optional<double> seconds) {
    const Running running(*this);
    // Python runs its signal handlers only when asked to, and only on its main thread: the loop asks a few
    // times a second, so that Ctrl-C ends run() as it ends any Python call.
    auto check = std::make_shared<std::function<void()>>();
    platform::MainQueue::TimerId checkTimer{};
    *check = [this, check, &checkTimer] {
        {
            py::gil_scoped_acquire gil;
            if (PyErr_CheckSignals() != 0) {
                failed(py::error_already_set());
                return;
            }
        }
        checkTimer = loop_->postAfter(std::chrono::milliseconds(50), [check] { (*check)(); });
    };
    checkTimer = loop_->postAfter(std::chrono::milliseconds(50), [check] { (*check)(); });
    std::optional<platform::MainQueue::TimerId> endTimer;
    if (seconds) {
        endTimer = loop_->postAfter(std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000)),
                                    [this] { loop_->stop(); });
    }
    {
        py::gil_scoped_release unlocked;
        loop_->run();
    }
    loop_->cancel(checkTimer);
    if (endTimer) loop_->cancel(*endTimer);
    *check = nullptr;  // the timer's task held it
    {
        // Ctrl-C may be raised in the loop's own check or in whichever callback Python was running.
        const std::lock_guard lock(mutex_);
        if (pending_ && pending_->matches(PyExc_KeyboardInterrupt)) {
            pending_.reset();
            return true;
        }
    }
    raisePending();
    return false;
}

void HostSession::stop() {
    const std::lock_guard lock(mutex_);
    // A stop asked while no one runs the loop would end the next run() before it began.
    if (runner_) loop_->stop();
}

bool HostSession::hasPending() const {
    const std::lock_guard lock(mutex_);
    return pending_.has_value();
}

void HostSession::failed(py::error_already_set error) {
    {
        const std::lock_guard lock(mutex_);
        if (!pending_) pending_ = std::move(error);
    }
    loop_->stop();
}

void HostSession::raisePending() {
    std::optional<py::error_already_set> error;
    {
        const std::lock_guard lock(mutex_);
        error.swap(pending_);
    }
    if (error) throw std::move(*error);
}

void HostSession::shutdown() {
    py::gil_scoped_release unlocked;
    onLoop([this] {
        platform::install(nullptr);
        platform_.reset();
        made_.reset();
    });
}

}  // namespace pelm::python
