#include <pelm/model/json_text.hpp>
#include <pelm/platform/linux/file_key_value_store.hpp>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include <pelm/platform/platform.hpp>
#include <pelm/testing/captured_log_sink.hpp>
#include <pelm/testing/virtual_loop.hpp>

#include "support/temp_folder.hpp"

namespace pelm::platform {
namespace {

namespace fs = std::filesystem;

class FileKeyValueStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // Only what the store touches, and nothing that starts a thread: these tests fork, and a child forked
        // while another thread holds an allocator or libc lock can deadlock on its first allocation.
        services_->mainQueue = std::make_shared<testing::VirtualLoop>();
        services_->log = log_;
        install(services_);
        file_ = folder_ / "nested" / "hostapp.json";
    }
    void TearDown() override { install(nullptr); }

    std::string fileText() const {
        std::ifstream in(file_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    // Runs `body` in a child process and waits for it to exit normally.
    template <class Body>
    static void inChildProcess(Body body) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            body();
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    std::shared_ptr<testing::CapturedLogSink> log_ =
        std::make_shared<testing::CapturedLogSink>();  // the store's own error lines
    std::shared_ptr<Platform> services_ = std::make_shared<Platform>();
    testing::TempFolder temp_{"pelm-store"};
    const fs::path& folder_ = temp_.path();
    fs::path file_;
};

TEST_F(FileKeyValueStoreTest, ValuesSurviveIntoAnotherProcess) {
    inChildProcess([&] {
        FileKeyValueStore writer(file_);
        writer.set("pelm.apptoken", "from the first process");
        writer.set("pelm.apihost", "h");
        writer.remove("pelm.apihost");
    });
    FileKeyValueStore reader(file_);
    EXPECT_EQ(reader.get("pelm.apptoken"), "from the first process");
    EXPECT_EQ(reader.get("pelm.apihost"), std::nullopt);
    EXPECT_FALSE(fs::exists(file_.string() + ".tmp"));
}

TEST_F(FileKeyValueStoreTest, AWriterKilledMidStreamLeavesTheOldOrTheNewFile) {
    FileKeyValueStore(file_).set("pelm.uuid", "kept");
    const std::regex written("round[0-9]-value-[0-9]+");
    for (int round = 0; round < 6; ++round) {
        const auto prefix = "round" + std::to_string(round) + "-value-";
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            FileKeyValueStore writer(file_);
            for (long i = 0;; ++i) writer.set("pelm.apptoken", prefix + std::to_string(i));
        }
        // Kill only once the stream is under way, at a different moment each round.
        FileKeyValueStore reader(file_);
        while (reader.get("pelm.apptoken").value_or("").rfind(prefix, 0) != 0) std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(3 + 5 * round));
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);

        const auto parsed = parseJSONText(fileText());
        ASSERT_TRUE(parsed && parsed->is_object()) << "round " << round << ": " << fileText();
        EXPECT_EQ(reader.get("pelm.uuid"), "kept");
        const auto token = reader.get("pelm.apptoken");
        ASSERT_TRUE(token);
        EXPECT_TRUE(std::regex_match(*token, written)) << *token;
        EXPECT_EQ(token->rfind(prefix, 0), 0u) << *token;
        // A temporary file the kill left holds the token; no one else may read it, and the next store of
        // the file removes it.
        const auto temporary = file_.string() + ".tmp";
        if (fs::exists(temporary)) {
            EXPECT_EQ(fs::status(temporary).permissions() & fs::perms::all,
                      fs::perms::owner_read | fs::perms::owner_write);
            FileKeyValueStore next(file_);
            EXPECT_FALSE(fs::exists(temporary)) << "round " << round;
        }
    }
    EXPECT_TRUE(log_->lines().empty());
}

// A value too large to be a setting is refused by name, and the file stays one that reads back.
TEST_F(FileKeyValueStoreTest, AValueOverTheLimitIsRefusedAndEveryOtherSettingStaysReadable) {
    FileKeyValueStore store(file_);
    store.set("pelm.apptoken", "kept");
    store.set("pelm.uuid", std::string(FileKeyValueStore::kMaxValueBytes + 1, 'x'));
    ASSERT_EQ(log_->lines().size(), 1u);
    EXPECT_EQ(log_->lines()[0], "[PELM][ERROR] Unable to store \"pelm.uuid\" in " + file_.string() +
                                    ": the text is 8388609 bytes, more than the 8 MiB a setting may hold");
#ifdef NDEBUG  // 60 MiB of JSON is read and written here: minutes in a sanitised debug build
    // A write that would make a file no read takes is refused (here the file holds 60 MiB already).
    std::ofstream(file_) << "{\"pelm.apptoken\": \"kept\", \"other\": \"" << std::string(60 << 20, 'y')
                         << "\"}";
    store.set("pelm.uuid", std::string(FileKeyValueStore::kMaxValueBytes, 'x'));
    EXPECT_EQ(store.get("pelm.apptoken"), "kept");
    EXPECT_EQ(store.entries().size(), 2u);
    EXPECT_NE(log_->lines().back().find("more than the 64 MiB it may be; it is left as it was"),
              std::string::npos)
        << log_->lines().back();
#endif
}

TEST_F(FileKeyValueStoreTest, EightThreadsLoseNoWrite) {
    FileKeyValueStore store(file_);
    constexpr int kThreads = 8;
    constexpr int kKeys = 25;
    std::vector<std::thread> threads;
    std::atomic<int> misreads{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int k = 0; k < kKeys; ++k) {
                const auto key = "t" + std::to_string(t) + ".k" + std::to_string(k);
                store.set(key, key + "=v");
                if (store.get(key) != key + "=v") ++misreads;
                store.get("t0.k0");
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(misreads, 0);
    FileKeyValueStore fresh(file_);
    EXPECT_EQ(fresh.entries().size(), static_cast<std::size_t>(kThreads * kKeys));
}

TEST_F(FileKeyValueStoreTest, TwoProcessesWritingAtOnceKeepEachOthersKeys) {
    const auto writeMany = [&](const std::string& prefix) {
        FileKeyValueStore store(file_);
        for (int i = 0; i < 40; ++i) store.set(prefix + std::to_string(i), "v");
    };
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        writeMany("child.");
        ::_exit(0);
    }
    writeMany("parent.");
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(FileKeyValueStore(file_).entries().size(), 80u);
}

// The files set aside beside the settings file, by name.
std::vector<std::string> corruptFiles(const fs::path& file) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
        const auto name = entry.path().filename().string();
        if (name.rfind(file.filename().string() + ".corrupt", 0) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST_F(FileKeyValueStoreTest, ABrokenFileReadsAsEmptyAndIsKeptAsideUnderANewNameEachTime) {
    fs::create_directories(file_.parent_path());
    std::ofstream(file_) << "{\"pelm.apptoken\": \"half";
    FileKeyValueStore store(file_);
    EXPECT_EQ(store.get("pelm.apptoken"), std::nullopt);
    EXPECT_EQ(store.get("pelm.uuid"), std::nullopt);
    // Said once, naming the file; reading leaves the file alone.
    ASSERT_EQ(log_->lines().size(), 1u);
    EXPECT_EQ(log_->lines()[0], "[PELM][ERROR] The settings file " + file_.string() +
                                    " is not a JSON object of texts; reading it as empty.");
    EXPECT_EQ(fileText(), "{\"pelm.apptoken\": \"half");
    store.set("pelm.apihost", "h");
    EXPECT_EQ(store.get("pelm.apihost"), "h");
    // Broken twice within the same second: the second copy gets a name of its own.
    std::ofstream(file_) << "[\"second\"]";
    store.set("pelm.apihost", "h2");
    const auto aside = corruptFiles(file_);
    ASSERT_EQ(aside.size(), 2u);
    EXPECT_TRUE(std::regex_match(aside[0], std::regex("hostapp\\.json\\.corrupt-[0-9]{8}T[0-9]{6}Z(-2)?")))
        << aside[0];
    std::set<std::string> kept;
    for (const auto& name : aside) {
        std::ifstream in(file_.parent_path() / name);
        kept.insert(std::string(std::istreambuf_iterator<char>(in), {}));
    }
    EXPECT_EQ(kept, (std::set<std::string>{"{\"pelm.apptoken\": \"half", "[\"second\"]"}));
    ASSERT_EQ(log_->lines().size(), 3u);
    EXPECT_EQ(log_->lines()[1], "[PELM][ERROR] The settings file " + file_.string() +
                                    " is not a JSON object of texts; kept as " +
                                    (file_.parent_path() / aside[0]).string() + ", starting afresh.");
}

// One system call of the store's fails once, with one errno; all the others go through.
struct Fault {
    const char* call;
    int error;
    friend void PrintTo(const Fault& fault, std::ostream* out) {
        *out << fault.call << " fails with " << strerrorname_np(fault.error);
    }
};

class FileKeyValueStoreFaultTest : public FileKeyValueStoreTest, public ::testing::WithParamInterface<Fault> {
  protected:
    FileCalls failingOnce() {
        auto calls = FileCalls::system();
        const auto fault = GetParam();
        const auto failNow = [this, fault](const char* call) {
            if (std::string(call) != fault.call || fired_) return false;
            fired_ = true;
            errno = fault.error;
            return true;
        };
        const auto settings = file_.string();
        const auto open = calls.open;
        calls.open = [=](const char* path, int flags, mode_t mode) {
            return path == settings && failNow("open") ? -1 : open(path, flags, mode);
        };
        const auto read = calls.read;
        calls.read = [=](int fd, void* buffer, size_t size) {
            return failNow("read") ? ssize_t{-1} : read(fd, buffer, size);
        };
        const auto write = calls.write;
        calls.write = [=](int fd, const void* buffer, size_t size) {
            return failNow("write") ? ssize_t{-1} : write(fd, buffer, size);
        };
        const auto fsync = calls.fsync;
        calls.fsync = [=](int fd) { return failNow("fsync") ? -1 : fsync(fd); };
        const auto rename = calls.rename;
        calls.rename = [=](const char* from, const char* to, bool replace) {
            return failNow("rename") ? -1 : rename(from, to, replace);
        };
        return calls;
    }
    bool fired_ = false;
};

TEST_P(FileKeyValueStoreFaultTest, AFailedCallKeepsTheFileWholeAndSaysWhichKeyFileAndCause) {
    FileKeyValueStore(file_).set("pelm.apptoken", "the token");
    const auto before = fileText();
    FileKeyValueStore store(file_, failingOnce());
    store.set("pelm.uuid", "new");
    ASSERT_TRUE(fired_);

    EXPECT_EQ(fileText(), before);
    EXPECT_TRUE(corruptFiles(file_).empty());
    EXPECT_FALSE(fs::exists(file_.string() + ".tmp"));
    ASSERT_EQ(log_->lines().size(), 1u);
    const auto line = log_->lines()[0];
    EXPECT_EQ(line.rfind("[PELM][ERROR] Unable to store \"pelm.uuid\" in " + file_.string() + ": ", 0), 0u)
        << line;
    EXPECT_NE(line.find(std::strerror(GetParam().error)), std::string::npos) << line;

    // The moment passed: the token is there, and the next write goes through.
    EXPECT_EQ(FileKeyValueStore(file_).get("pelm.apptoken"), "the token");
    store.set("pelm.uuid", "new");
    EXPECT_EQ(store.get("pelm.uuid"), "new");
    EXPECT_EQ(store.get("pelm.apptoken"), "the token");
}

std::string faultName(const ::testing::TestParamInfo<Fault>& info) {
    return std::string(info.param.call) + "_" + strerrorname_np(info.param.error);
}

INSTANTIATE_TEST_SUITE_P(EveryCallEveryErrno, FileKeyValueStoreFaultTest,
                         ::testing::Values(Fault{"open", EIO}, Fault{"open", EMFILE}, Fault{"open", ENFILE},
                                           Fault{"open", EACCES}, Fault{"open", ENOMEM}, Fault{"read", EIO},
                                           Fault{"read", EMFILE}, Fault{"read", EAGAIN},
                                           Fault{"read", ENOMEM}, Fault{"write", EIO}, Fault{"write", ENOSPC},
                                           Fault{"write", EDQUOT}, Fault{"fsync", EIO},
                                           Fault{"fsync", ENOSPC}, Fault{"rename", EIO},
                                           Fault{"rename", EMFILE}),
                         faultName);

TEST_F(FileKeyValueStoreTest, AnEndlessFileIsReadOnlyUpToTheLimit) {
    fs::create_directories(file_.parent_path());
    fs::create_symlink("/dev/zero", file_);
    FileKeyValueStore store(file_);
    EXPECT_EQ(store.get("pelm.apptoken"), std::nullopt);
    ASSERT_EQ(log_->lines().size(), 1u);
    EXPECT_NE(log_->lines()[0].find("is larger than 64 MiB"), std::string::npos) << log_->lines()[0];
}

TEST_F(FileKeyValueStoreTest, TextThatIsNotUtf8IsRefusedWithoutThrowingOrTouchingTheFile) {
    FileKeyValueStore store(file_);
    store.set("pelm.apptoken", "good");
    const auto before = fileText();
    for (const char* bad : {"\xFF", "a\xC3", "\xED\xA0\x80", "\xC0\xAF"}) store.set("pelm.apptoken", bad);
    store.set("\xFE", "value");
    EXPECT_EQ(store.get("pelm.apptoken"), "good");
    EXPECT_EQ(fileText(), before);
    ASSERT_EQ(log_->lines().size(), 5u);
    EXPECT_EQ(log_->lines()[0], "[PELM][ERROR] Unable to store \"pelm.apptoken\" in " + file_.string() +
                                    ": the text is not valid UTF-8");
    EXPECT_FALSE(fs::exists(file_.string() + ".tmp"));
    // Valid text of any size and kind goes in and comes back byte for byte.
    const std::string large(1 << 20, 'x');
    for (const std::string& good : {std::string(), std::string("K\xC3\xA4se \xF0\x9F\xA7\x80"), large}) {
        store.set("pelm.apptoken", good);
        EXPECT_EQ(store.get("pelm.apptoken"), good);
    }
}

TEST_F(FileKeyValueStoreTest, AFailedWriteKeepsTheOldFileRemovesItsTemporaryAndSaysWhy) {
    FileKeyValueStore store(file_);
    store.set("pelm.apptoken", "old");
    const auto before = fileText();
    // A file size limit makes the kernel cut the write short and then refuse it, as a full disk would.
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 40;
    ::setrlimit(RLIMIT_FSIZE, &small);
    store.set("pelm.apptoken", std::string(1000, 'n'));
    ::setrlimit(RLIMIT_FSIZE, &saved);
    EXPECT_EQ(fileText(), before);
    EXPECT_FALSE(fs::exists(file_.string() + ".tmp"));
    ASSERT_EQ(log_->lines().size(), 1u);
    EXPECT_EQ(log_->lines()[0], "[PELM][ERROR] Unable to store \"pelm.apptoken\" in " + file_.string() +
                                    ": cannot write: File too large");
}

TEST_F(FileKeyValueStoreTest, ValuesThatAreNotTextAreIgnoredButNotLost) {
    fs::create_directories(file_.parent_path());
    std::ofstream(file_) << R"({"pelm.apptoken": 42, "other": {"a": [1]}})";
    FileKeyValueStore store(file_);
    EXPECT_EQ(store.get("pelm.apptoken"), std::nullopt);
    store.set("pelm.uuid", "u");
    const auto parsed = parseJSONText(fileText());
    ASSERT_TRUE(parsed);
    EXPECT_EQ((*parsed)["other"]["a"][0], 1);
    EXPECT_EQ((*parsed)["pelm.apptoken"], 42);
}

TEST_F(FileKeyValueStoreTest, AnUnwritableFolderIsReportedNotFatal) {
    // A regular file where the folder should be defeats even root.
    std::ofstream(folder_ / "plainfile") << "x";
    FileKeyValueStore store(folder_ / "plainfile" / "hostapp.json");
    store.set("pelm.apptoken", "t");
    EXPECT_EQ(store.get("pelm.apptoken"), std::nullopt);
    ASSERT_EQ(log_->lines().size(), 1u);
    EXPECT_EQ(log_->lines()[0], "[PELM][ERROR] Unable to store \"pelm.apptoken\" in " +
                                    (folder_ / "plainfile" / "hostapp.json").string() +
                                    ": cannot lock: Not a directory");
}

}  // namespace
}  // namespace pelm::platform
