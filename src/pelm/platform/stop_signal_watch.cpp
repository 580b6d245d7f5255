#include <pelm/platform/stop_signal_watch.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <system_error>

namespace pelm::platform::detail {
namespace {

std::atomic<bool> watched{false};
std::atomic<int> signalPipe{-1};  // the write end, for the handler

// The first stop signal's time; 0 until one came.
std::atomic<std::int64_t> firstSignalNs{0};
// Wrappers such as timeout(1) pass a signal on to the process and to its group, so one Ctrl-C may arrive
// twice at once: a second signal counts only this long after the first.
constexpr std::int64_t kSecondSignalAfterNs = 200'000'000;

std::int64_t monotonicNs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

extern "C" void onStopSignal(int signal) {
    const int saved = errno;
    const auto now = monotonicNs();
    std::int64_t none = 0;
    if (firstSignalNs.compare_exchange_strong(none, now)) {
        const auto number = static_cast<unsigned char>(signal);
        if (const int fd = signalPipe.load(); fd >= 0) [[maybe_unused]]
            auto written = ::write(fd, &number, 1);
    } else if (now - none >= kSecondSignalAfterNs) {
        // The host hangs in its stop and the user insists: end as the signal would have without us.
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
        ::sigaction(signal, &action, nullptr);
        ::raise(signal);
    }
    errno = saved;
}

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

StopSignalWatch::StopSignalWatch(std::function<void(int signal)> onSignal) {
    if (watched.exchange(true)) throw std::logic_error("another run loop watches SIGINT and SIGTERM already");
    try {
        if (::pipe2(pipe_, O_CLOEXEC) != 0) fail("cannot make the pipe for stop signals");
        // A full pipe must not block the handler; the signals that did not fit are one stop all the same.
        ::fcntl(pipe_[1], F_SETFL, O_NONBLOCK);
        signalPipe = pipe_[1];
        firstSignalNs = 0;
        thread_ = std::thread([this, onSignal = std::move(onSignal)] { watch(onSignal); });
        struct sigaction action {};
        action.sa_handler = onStopSignal;
        sigfillset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        if (::sigaction(SIGINT, &action, &earlierInterrupt_) != 0 ||
            ::sigaction(SIGTERM, &action, &earlierTerminate_) != 0) {
            fail("cannot handle SIGINT and SIGTERM");
        }
    } catch (...) {
        release();
        throw;
    }
}

StopSignalWatch::~StopSignalWatch() {
    release();
}

void StopSignalWatch::release() {
    if (pipe_[1] >= 0) {
        ::sigaction(SIGINT, &earlierInterrupt_, nullptr);
        ::sigaction(SIGTERM, &earlierTerminate_, nullptr);
        signalPipe = -1;
        const unsigned char end = 0;
        [[maybe_unused]] auto written = ::write(pipe_[1], &end, 1);
    }
    if (thread_.joinable()) thread_.join();
    for (int& fd : pipe_) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    watched = false;
}

void StopSignalWatch::watch(const std::function<void(int signal)>& onSignal) const {
    for (;;) {
        unsigned char number = 0;
        const auto got = ::read(pipe_[0], &number, 1);
        if (got < 0 && errno == EINTR) continue;
        if (got != 1 || number == 0) return;
        onSignal(number);
    }
}

}  // namespace pelm::platform::detail
