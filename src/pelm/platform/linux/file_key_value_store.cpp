#include <pelm/platform/linux/file_key_value_store.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include <pelm/model/json_text.hpp>
#include <pelm/sdk/log.hpp>

namespace pelm::platform {
namespace {

using nlohmann::ordered_json;

// Closes a descriptor on every path out.
class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

  private:
    int fd_;
};

bool writeAll(int fd, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const auto n = ::write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

void reportFailure(const std::filesystem::path& file, const char* what) {
    const int code = errno;
    Log::error(
        [&] { return "Unable to " + std::string(what) + " " + file.string() + ": " + std::strerror(code); });
}

std::string suffixed(const std::filesystem::path& file, const char* suffix) {
    return file.string() + suffix;
}

}  // namespace

FileKeyValueStore::FileKeyValueStore(std::filesystem::path file) : file_(std::move(file)) {}

ordered_json FileKeyValueStore::load() const {
    std::ifstream in(file_, std::ios::binary);
    if (!in) return ordered_json::object();
    std::ostringstream text;
    text << in.rdbuf();
    auto parsed = parseJSONText(text.str());
    if (!parsed || !parsed->is_object()) return ordered_json::object();
    return std::move(*parsed);
}

std::optional<std::string> FileKeyValueStore::get(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto contents = load();
    const auto found = contents.find(std::string(key));
    if (found == contents.end() || !found->is_string()) return std::nullopt;
    return found->get<std::string>();
}

std::vector<std::pair<std::string, std::string>> FileKeyValueStore::entries() const {
    std::lock_guard lock(mutex_);
    std::vector<std::pair<std::string, std::string>> result;
    const auto contents = load();
    for (const auto& [key, value] : contents.items()) {
        if (value.is_string()) result.emplace_back(key, value.get<std::string>());
    }
    return result;
}

void FileKeyValueStore::set(std::string_view key, std::string_view value) {
    update([&](ordered_json& contents) { contents[std::string(key)] = std::string(value); });
}

void FileKeyValueStore::remove(std::string_view key) {
    update([&](ordered_json& contents) { contents.erase(std::string(key)); });
}

void FileKeyValueStore::update(const std::function<void(ordered_json&)>& change) {
    std::lock_guard lock(mutex_);
    std::error_code ignored;
    std::filesystem::create_directories(file_.parent_path(), ignored);

    // The lock file is never replaced, so every process locks the same inode.
    FileDescriptor lockFile(::open(suffixed(file_, ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lockFile.valid()) return reportFailure(file_, "lock");
    while (::flock(lockFile.get(), LOCK_EX) != 0) {
        if (errno != EINTR) return reportFailure(file_, "lock");
    }

    std::ifstream probe(file_, std::ios::binary);
    std::ostringstream text;
    if (probe) text << probe.rdbuf();
    auto parsed = parseJSONText(text.str());
    ordered_json contents = ordered_json::object();
    if (parsed && parsed->is_object()) {
        contents = std::move(*parsed);
    } else if (!text.str().empty()) {
        // Keep what we could not read, rather than overwrite it.
        std::filesystem::rename(file_, suffixed(file_, ".corrupt"), ignored);
    }
    change(contents);
    replaceFile(contents);
}

void FileKeyValueStore::replaceFile(const ordered_json& contents) const {
    const auto temporary = suffixed(file_, ".tmp");
    {
        FileDescriptor out(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!out.valid()) return reportFailure(temporary, "create");
        if (!writeAll(out.get(), contents.dump(2) + "\n") || ::fsync(out.get()) != 0) {
            return reportFailure(temporary, "write");
        }
    }
    if (::rename(temporary.c_str(), file_.c_str()) != 0) return reportFailure(file_, "replace");
    FileDescriptor folder(::open(file_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.valid()) ::fsync(folder.get());
}

}  // namespace pelm::platform
