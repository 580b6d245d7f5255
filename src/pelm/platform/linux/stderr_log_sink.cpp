#include <pelm/platform/linux/stderr_log_sink.hpp>

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>

namespace pelm::platform {
namespace {

std::string timeStamp() {
    const auto now = std::chrono::system_clock::now();
    const auto seconds = std::chrono::system_clock::to_time_t(now);
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[40];
    const auto length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + length, sizeof text - length, ".%03d", static_cast<int>(millis));
    return text;
}

}  // namespace

StderrLogSink::StderrLogSink(std::string processName, bool alsoSyslog)
    : processName_(std::move(processName)), syslog_(alsoSyslog) {}

void StderrLogSink::write(std::string_view line) {
    std::string entry = timeStamp();
    entry += ' ';
    entry += processName_;
    entry += '[' + std::to_string(::getpid()) + ':' + std::to_string(::syscall(SYS_gettid)) + "] ";
    entry += line;
    entry += '\n';
    // One write(2) per line: the kernel keeps it whole against other writers of the same descriptor.
    std::size_t done = 0;
    while (done < entry.size()) {
        const auto n = ::write(STDERR_FILENO, entry.data() + done, entry.size() - done);
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    if (syslog_) {
        ::syslog(LOG_ERR, "%.*s", static_cast<int>(line.size()), line.data());
    }
}

}  // namespace pelm::platform
