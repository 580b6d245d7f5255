#include <pelm/platform/linux/file_key_value_store.hpp>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/linux/bounded_file.hpp>
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

std::string errnoText(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

// Empty on success, else why not. A write that makes no progress without an error is a full disk.
std::string writeAll(const FileCalls& calls, int fd, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const auto n = calls.write(fd, data.data() + done, data.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return errnoText("cannot write");
        if (n == 0) return "cannot write: " + std::string(std::strerror(ENOSPC));
        done += static_cast<std::size_t>(n);
    }
    return {};
}

std::string suffixed(const std::filesystem::path& file, const char* suffix) {
    return file.string() + suffix;
}

}  // namespace

// A temporary file is there between a writer's open and its rename; one found while no writer holds the
// lock was left by a process that died writing, and may hold the token.
FileKeyValueStore::FileKeyValueStore(std::filesystem::path file, FileCalls calls)
    : file_(std::move(file)), calls_(std::move(calls)) {
    const auto temporary = suffixed(file_, ".tmp");
    if (::access(temporary.c_str(), F_OK) != 0) return;
    FileDescriptor lockFile(::open(suffixed(file_, ".lock").c_str(), O_RDWR | O_CLOEXEC));
    if (lockFile.valid() && ::flock(lockFile.get(), LOCK_EX | LOCK_NB) == 0) ::unlink(temporary.c_str());
}

ordered_json FileKeyValueStore::load() const {
    const auto read = readBoundedFile(file_, kMaxJSONFileBytes, calls_);
    if (read.missing) return ordered_json::object();
    auto parsed = read.bytes ? parseJSONText(*read.bytes) : std::nullopt;
    if (parsed && parsed->is_object()) {
        reportedUnreadable_ = false;
        return std::move(*parsed);
    }
    // Said once, not on every read; the next write keeps the unreadable file aside and starts afresh.
    if (!reportedUnreadable_.exchange(true)) {
        const auto why = read.bytes ? std::string("is not a JSON object of texts") : read.error;
        Log::error(
            [&] { return "The settings file " + file_.string() + " " + why + "; reading it as empty."; });
    }
    return ordered_json::object();
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
    // JSON carries only UTF-8. Storing a replacement would hand back another text than the one given, so
    // such a text is not stored at all.
    if (!isValidUTF8(key) || !isValidUTF8(value)) {
        return report("store", key, "the text is not valid UTF-8");
    }
    if (value.size() > kMaxValueBytes) {
        return report("store", key,
                      "the text is " + std::to_string(value.size()) + " bytes, more than the " +
                          std::to_string(kMaxValueBytes >> 20) + " MiB a setting may hold");
    }
    update("store", key, [&](ordered_json& contents) { contents[std::string(key)] = std::string(value); });
}

void FileKeyValueStore::remove(std::string_view key) {
    if (!isValidUTF8(key)) return;  // no such key can be in the file
    update("remove", key, [&](ordered_json& contents) { contents.erase(std::string(key)); });
}

void FileKeyValueStore::report(const char* verb, std::string_view key, const std::string& why) const {
    Log::error([&] {
        return "Unable to " + std::string(verb) + " " + jsonText(std::string(key)) + " in " + file_.string() +
               ": " + why;
    });
}

void FileKeyValueStore::update(const char* verb, std::string_view key,
                               const std::function<void(ordered_json&)>& change) {
    std::lock_guard lock(mutex_);
    std::error_code ignored;
    std::filesystem::create_directories(file_.parent_path(), ignored);

    // The lock file is never replaced, so every process locks the same inode.
    FileDescriptor lockFile(
        calls_.open(suffixed(file_, ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lockFile.valid()) return report(verb, key, errnoText("cannot lock"));
    while (::flock(lockFile.get(), LOCK_EX) != 0) {
        if (errno != EINTR) return report(verb, key, errnoText("cannot lock"));
    }

    // A file we could not read at this moment (EIO, EMFILE, ...) may be whole and hold the token: it stays
    // as it is, and this change is not made. Only a file read whole that is not ours is set aside.
    const auto read = readBoundedFile(file_, kMaxJSONFileBytes, calls_);
    ordered_json contents = ordered_json::object();
    if (read.bytes) {
        auto parsed = parseJSONText(*read.bytes);
        if (parsed && parsed->is_object()) {
            contents = std::move(*parsed);
        } else if (const auto failure = setAside(); !failure.empty()) {
            return report(verb, key, failure);
        }
    } else if (!read.missing) {
        return report(verb, key, "the file " + read.error + "; it is left as it was");
    }
    change(contents);
    if (const auto failure = replaceFile(contents); !failure.empty()) report(verb, key, failure);
}

std::string FileKeyValueStore::setAside() const {
    const auto stamp = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm utc{};
    ::gmtime_r(&stamp, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
    const auto base = file_.string() + ".corrupt-" + text;
    // Never over an earlier one: each may be the only copy of something.
    for (int attempt = 1; attempt <= 1000; ++attempt) {
        const auto aside = attempt == 1 ? base : base + "-" + std::to_string(attempt);
        if (calls_.rename(file_.c_str(), aside.c_str(), false) == 0) {
            Log::error([&] {
                return "The settings file " + file_.string() + " is not a JSON object of texts; kept as " +
                       aside + ", starting afresh.";
            });
            return {};
        }
        if (errno != EEXIST) return errnoText(("cannot set the unreadable file aside as " + aside).c_str());
    }
    return "cannot set the unreadable file aside: " + base + " and 999 more names are taken";
}

std::string FileKeyValueStore::replaceFile(const ordered_json& contents) const {
    const auto text = jsonText(contents, 2) + "\n";
    // Written, a file no read could take would lose every setting in it.
    if (text.size() > kMaxJSONFileBytes)
        return "the file would be " + std::to_string(text.size()) + " bytes, more than the " +
               std::to_string(kMaxJSONFileBytes >> 20) + " MiB it may be; it is left as it was";
    const auto temporary = suffixed(file_, ".tmp");
    std::string failure;
    {
        FileDescriptor out(calls_.open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!out.valid()) return errnoText(("cannot create " + temporary).c_str());
        ::fchmod(out.get(), 0600);  // one left by an older version may have been readable by others
        failure = writeAll(calls_, out.get(), text);
        if (failure.empty() && calls_.fsync(out.get()) != 0) failure = errnoText("cannot flush");
    }
    if (failure.empty() && calls_.rename(temporary.c_str(), file_.c_str(), true) != 0)
        failure = errnoText("cannot replace");
    if (!failure.empty()) {
        // The old file stands as it was; the half-written new one must not be left beside it.
        ::unlink(temporary.c_str());
        return failure;
    }
    FileDescriptor folder(calls_.open(file_.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
    if (folder.valid()) calls_.fsync(folder.get());
    return {};
}

}  // namespace pelm::platform
