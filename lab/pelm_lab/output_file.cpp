#include "pelm_lab/output_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace pelm::lab {
namespace {

// Writes what the stream holds through to the disk: a rename of a file whose bytes are still in the page
// cache may, after a power loss, leave an empty file under the old name.
bool syncToDisk(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced;
}

bool isFifo(const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

bool sameFile(const std::string& a, const std::string& b) {
    if (a == "-" || b == "-") return a == b;
    struct stat first {
    }, second{};
    if (::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0)
        return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
    std::error_code ignored;
    return std::filesystem::weakly_canonical(a, ignored) == std::filesystem::weakly_canonical(b, ignored);
}

}  // namespace

bool isStreamOutput(const std::string& path) {
    struct stat status {};
    return path == "-" || (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode));
}

std::string standardOutputPath() {
    static const int data = [] {
        std::fflush(stdout);
        const int fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        return fd;
    }();
    return "/dev/fd/" + std::to_string(data);
}

OutputFile::~OutputFile() {
    discard();
}

// A FIFO with no reader would keep the open waiting for ever: it is refused instead.
bool OutputFile::openDirect(const std::string& path, std::string& error) {
    direct_ = true;
    const auto target = path == "-" ? standardOutputPath() : path;
    const int probe = ::open(target.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (probe < 0) {
        error = "cannot write " + path + ": " +
                (errno == ENXIO ? std::string("no process reads from it") : std::strerror(errno));
        return false;
    }
    out_.open(target, std::ios::app | std::ios::binary);
    ::close(probe);
    if (!out_) error = "cannot write " + path + ": " + std::strerror(errno);
    return static_cast<bool>(out_);
}

bool OutputFile::open(const std::string& path, std::string& error) {
    path_ = path;
    if (isStreamOutput(path)) return openDirect(path, error);
    partial_ = path + ".partial";
    out_.open(partial_, std::ios::trunc | std::ios::binary);
    if (!out_) error = "cannot write " + partial_ + ": " + std::strerror(errno);
    return static_cast<bool>(out_);
}

bool OutputFile::commit(std::string& error) {
    if (!out_.is_open()) return true;
    out_.close();
    if (direct_) {
        if (!out_) error = "cannot write " + path_;
        return static_cast<bool>(out_);
    }
    if (!out_ || !syncToDisk(partial_) || std::rename(partial_.c_str(), path_.c_str()) != 0) {
        error = "cannot write " + path_ + (errno != 0 ? std::string(": ") + std::strerror(errno) : "");
        std::remove(partial_.c_str());
        return false;
    }
    return true;
}

void OutputFile::discard() {
    if (!out_.is_open()) return;
    out_.close();
    if (!direct_) std::remove(partial_.c_str());
}

std::optional<std::string> sameFileProblem(const std::string& option, const std::string& output,
                                           const std::vector<std::string>& inputs,
                                           std::vector<std::pair<std::string, std::string>>& outputs) {
    for (const auto& input : inputs) {
        if (sameFile(output, input))
            return option + " " + output + " is the input " + input + " itself; choose another file";
    }
    for (const auto& [otherOption, other] : outputs) {
        // Two outputs into /dev/null (or a terminal) do not spoil each other; two into one pipe do.
        const bool shareable = output != "-" && isStreamOutput(output) && !isFifo(output);
        if (!shareable && sameFile(output, other))
            return option + " " + output + " is the file " + otherOption + " writes; choose another file";
    }
    outputs.emplace_back(option, output);
    return std::nullopt;
}

}  // namespace pelm::lab
