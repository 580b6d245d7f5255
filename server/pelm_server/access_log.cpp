#include "pelm_server/access_log.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <utility>

namespace pelm::server {
namespace {

// "2026-11-26T07:31:02.114Z", the second's part made once a second per thread.
void appendTime(std::string& line) {
    thread_local std::time_t second = -1;
    thread_local char secondText[32] = {};
    const auto now = std::chrono::system_clock::now();
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    const std::time_t seconds = static_cast<std::time_t>(millis / 1000);
    if (seconds != second) {
        std::tm parts{};
        gmtime_r(&seconds, &parts);
        std::strftime(secondText, sizeof secondText, "%Y-%m-%dT%H:%M:%S", &parts);
        second = seconds;
    }
    char text[48];
    std::snprintf(text, sizeof text, "%s.%03dZ", secondText, static_cast<int>(millis % 1000));
    line += text;
}

// A path as sent may hold any byte; a log line holds printable ASCII without spaces.
void appendEscaped(std::string& line, std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7f && byte != '%') {
            line += c;
        } else {
            line += '%';
            line += kHex[byte >> 4];
            line += kHex[byte & 15];
        }
    }
}

}  // namespace

AccessLog::AccessLog(const std::filesystem::path& path) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd_ < 0)
        throw std::runtime_error("cannot open the access log " + path.string() + ": " + std::strerror(errno));
    pending_.reserve(64 * 1024);
    writer_ = std::thread([this] { run(); });
}

AccessLog::~AccessLog() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    writer_.join();
    ::close(fd_);
}

void AccessLog::write(std::string_view address, std::string_view method, std::string_view path, int status,
                      std::size_t bytes, std::chrono::steady_clock::duration took) {
    thread_local std::string line;
    line.clear();
    appendTime(line);
    line += ' ';
    appendEscaped(line, address);
    line += ' ';
    appendEscaped(line, method);
    line += ' ';
    appendEscaped(line, path.substr(0, path.find('?')));
    char tail[64];
    std::snprintf(tail, sizeof tail, " %d %zu %.6f\n", status, bytes,
                  std::chrono::duration<double>(took).count());
    line += tail;
    {
        std::lock_guard lock(mutex_);
        if (pending_.size() + line.size() > kMaxPending) {
            ++dropped_;
            return;
        }
        pending_ += line;
        ++appended_;
    }
    wake_.notify_one();
}

std::uint64_t AccessLog::takeDropped() {
    std::lock_guard lock(mutex_);
    return std::exchange(dropped_, 0);
}

void AccessLog::flush() {
    std::unique_lock lock(mutex_);
    const auto wanted = appended_;
    wake_.notify_one();
    written_.wait(lock, [&] { return flushed_ >= wanted || stopping_; });
}

// Takes what is pending in one swap and writes it with the lock let go.
void AccessLog::run() {
    std::string writing;
    writing.reserve(64 * 1024);
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return !pending_.empty() || stopping_; });
        if (pending_.empty() && stopping_) break;
        writing.swap(pending_);
        const auto lines = appended_;
        lock.unlock();
        std::size_t done = 0;
        while (done < writing.size()) {
            const auto wrote = ::write(fd_, writing.data() + done, writing.size() - done);
            if (wrote < 0 && errno == EINTR) continue;
            if (wrote <= 0) break;  // a full disk: these lines are lost and counted, the server goes on
            done += static_cast<std::size_t>(wrote);
        }
        const auto lost =
            std::count(writing.begin() + static_cast<std::ptrdiff_t>(done), writing.end(), '\n');
        writing.clear();
        lock.lock();
        dropped_ += static_cast<std::uint64_t>(lost);
        flushed_ = lines;
        written_.notify_all();
    }
    written_.notify_all();
}

}  // namespace pelm::server
