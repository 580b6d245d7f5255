#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>

#include <nlohmann/json.hpp>

#include <pelm/platform/key_value_store.hpp>
#include <pelm/platform/linux/file_calls.hpp>

namespace pelm::platform {

/// One small JSON file of text values. Every write replaces the file atomically (temp file, fsync, rename,
/// fsync of the folder), so a crash at any moment leaves the old or the new file, never a broken one.
/// Threads of one process are serialised by a mutex, processes by an advisory lock beside the file, so
/// concurrent writers never lose each other's keys. Every read goes to the file: a value written by
/// another process is seen at once.
///
/// Nothing here throws. A write that fails leaves the old file as it was, removes its temporary file and
/// writes one log line naming the key, the file and the cause; a text that is not valid UTF-8 is not stored
/// (JSON cannot carry it). A file that cannot be read at the moment (any errno on open or read, or over
/// 64 MiB) reads as empty, said once in the log, and is never touched: a write while it cannot be read is
/// refused and logged, so a passing EIO or EMFILE cannot cost the stored token. Only a file read whole that
/// is not a JSON object is set aside, by the next write, to FILE.corrupt-<UTC time>, never over an earlier
/// one, said in one log line. A value over kMaxValueBytes, or one that would make the file larger than can be
/// read back, is refused with a log line: the file stays readable. A temporary file left by a process killed
/// while writing (readable by its owner only) is removed when the next store of the file is made.
class FileKeyValueStore final : public KeyValueStore {
  public:
    /// The most a setting may hold: far above any token, host or key, far below what reading allows.
    static constexpr std::size_t kMaxValueBytes = std::size_t{8} << 20;

    explicit FileKeyValueStore(std::filesystem::path file, FileCalls calls = FileCalls::system());

    std::optional<std::string> get(std::string_view key) const override;
    void set(std::string_view key, std::string_view value) override;
    void remove(std::string_view key) override;

    const std::filesystem::path& file() const { return file_; }
    /// Every text value in the file, in file order.
    std::vector<std::pair<std::string, std::string>> entries() const;

  private:
    nlohmann::ordered_json load() const;
    void update(const char* verb, std::string_view key,
                const std::function<void(nlohmann::ordered_json&)>& change);
    /// Empty on success, else the cause.
    std::string replaceFile(const nlohmann::ordered_json& contents) const;
    /// Moves an unreadable file to a name of its own; empty on success, else the cause.
    std::string setAside() const;
    void report(const char* verb, std::string_view key, const std::string& why) const;

    std::filesystem::path file_;
    FileCalls calls_;
    mutable std::mutex mutex_;
    mutable std::atomic<bool> reportedUnreadable_{false};
};

}  // namespace pelm::platform
