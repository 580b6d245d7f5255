// A PostgreSQL server that stops answering (SIGSTOP: a stalled disk or a cut network looks the same to
// pelm-server) while phones look up content and upload visits, then answers again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <pelm/model/json_text.hpp>

#include "pelm_server/certificates.hpp"
#include "pelm_server/store_factory.hpp"
#include "support/server_fixture.hpp"
#include "support/server_process.hpp"

namespace pelm::testing {
namespace {

using namespace std::chrono_literals;

// A PostgreSQL cluster of this test's own, since stopping it would stop every other test's database too.
class OwnCluster {
  public:
    explicit OwnCluster(const std::filesystem::path& folder) : folder_(folder) {
        run("start");
        std::ifstream(folder_ / "url") >> url_;
        std::string cluster;
        std::ifstream(folder_ / "cluster") >> cluster;
        std::ifstream(cluster + "/data/postmaster.pid") >> postmaster_;
    }
    ~OwnCluster() {
        resume();
        run("stop");
    }
    const std::string& url() const { return url_; }
    /// Every process of the cluster: the postmaster and the backends it forked.
    void pause() { signalAll(SIGSTOP); }
    void resume() { signalAll(SIGCONT); }

  private:
    void run(const std::string& action) const {
        const auto command = std::string(PELM_POSTGRESQL_SH) + " " + action + " " + folder_.string();
        if (std::system(command.c_str()) != 0) throw std::runtime_error(command + " failed");
    }
    void signalAll(int signal) const {
        kill(postmaster_, signal);
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
            std::ifstream stat(entry.path() / "stat");
            std::string pid, name, state;
            pid_t parent = 0;
            if (stat >> pid >> name >> state >> parent && parent == postmaster_) kill(std::stoi(pid), signal);
        }
    }
    std::filesystem::path folder_;
    std::string url_;
    pid_t postmaster_ = 0;
};

std::string upload(int phone) {
    return "app_token=" + std::string(kToken) + "&session_user=phone-" + std::to_string(phone) +
           "&session%5Bstart_time%5D=2016-07-16T19%3A20%3A30.450%2B0200&beacon%5Buuid%5D=" + kUuid +
           "&session_logs%5B%5D%5Buuid%5D=" + kUuid +
           "&session_logs%5B%5D%5Bminor%5D=" + std::to_string(phone);
}

// What the phones sent and were answered.
class Phones {
  public:
    Phones(TestPlatform& platform, std::string host) : platform_(platform), host_(std::move(host)) {}

    void upload(int phone) {
        platform_.http->send({"POST",
                              "https://" + host_ + "/api/v1/sessions",
                              {{"Content-Type", "application/x-www-form-urlencoded"}},
                              testing::upload(phone)},
                             [this, phone](platform::HttpReply reply) { uploads[phone] = reply.status; });
    }
    void get(const std::string& pathAndQuery) {
        platform_.http->send({"GET", "https://" + host_ + "/api/v1" + pathAndQuery, {}, ""},
                             [this, pathAndQuery](platform::HttpReply reply) { gets[pathAndQuery] = reply; });
    }
    void settle() { platform_.loop->runUntilIdle(); }

    std::map<int, long> uploads;
    std::map<std::string, platform::HttpReply> gets;

  private:
    TestPlatform& platform_;
    std::string host_;
};

const std::string kLookup = "/contents/by_hardware?app_token=" + std::string(kToken) +
                            "&type=BLE&uuid=" + kUuid + "&major=1&minor=11";
const std::string kConfig = "/app_config/by_app_token?app_token=" + std::string(kToken);
const std::string kStatus = "/status?app_token=" + std::string(kToken);

TEST(HungDatabase, UploadsGet503LookupsComeFromTheCacheAStopTakesUnderThreeSecondsNothingIsStoredTwice) {
    const TempFolder folder("pelm-hung-database");
    OwnCluster cluster(folder.path() / "postgresql");
    const auto certificate = server::makeThrowawayCertificate(folder.path());
    const auto seedFile = folder.path() / "seed.json";
    std::ofstream(seedFile) << jsonText(testSeed());
    const std::vector<std::string> arguments{"--db",   cluster.url(),
                                             "--cert", certificate.certFile.string(),
                                             "--key",  certificate.keyFile.string(),
                                             "--seed", seedFile.string()};
    TestPlatformOptions options;
    options.caFile = certificate.caFile;
    // Longer than the server's own deadline for a request that waits on the store: a phone that gets no
    // answer in this time was kept waiting by a server that should have said 503.
    options.timeout = 15s;
    TestPlatform platform(options);

    auto server = std::make_unique<ServerProcess>(arguments);
    Phones phones(platform, server->host());
    for (int phone = 0; phone < 5; ++phone) phones.upload(phone);
    phones.get(kLookup);
    phones.get(kConfig);
    phones.settle();
    const auto healthyLookup = phones.gets[kLookup];
    ASSERT_EQ(healthyLookup.status, 200);

    cluster.pause();
    std::this_thread::sleep_for(6s);  // past the cache's 5 s: every lookup would have to ask the database
    for (int phone = 5; phone < 25; ++phone) phones.upload(phone);
    phones.get(kLookup);
    phones.get(kConfig);
    phones.settle();
    phones.get(kStatus);
    phones.settle();

    for (int phone = 5; phone < 25; ++phone) EXPECT_EQ(phones.uploads[phone], 503) << "phone " << phone;
    EXPECT_EQ(phones.gets[kLookup].status, 200) << phones.gets[kLookup].error.value_or("");
    EXPECT_EQ(phones.gets[kLookup].body, healthyLookup.body);
    EXPECT_EQ(phones.gets[kConfig].status, 200);
    EXPECT_NE(phones.gets[kStatus].body.find("\"database\":\"unavailable: "), std::string::npos)
        << phones.gets[kStatus].body;

    const auto ended = server->endWith(SIGTERM, 3s);
    ASSERT_TRUE(ended.has_value()) << "pelm-server still ran 3 s after SIGTERM";
    EXPECT_TRUE(WIFEXITED(*ended) && WEXITSTATUS(*ended) == 0);

    // The database answers again; the phones send what was refused, as they keep a visit until it is stored.
    cluster.resume();
    server = std::make_unique<ServerProcess>(arguments);
    Phones again(platform, server->host());
    for (int phone = 0; phone < 25; ++phone) {
        if (phones.uploads[phone] != 201) again.upload(phone);
    }
    again.settle();
    for (const auto& [phone, status] : again.uploads) EXPECT_EQ(status, 201) << "phone " << phone;

    std::map<std::string, int> timesStored;
    for (const auto& session : server::openContentStore(cluster.url())->sessions())
        ++timesStored[session["session_user"].get<std::string>()];
    EXPECT_EQ(timesStored.size(), 25u);
    for (const auto& [user, times] : timesStored) EXPECT_EQ(times, 1) << user;
}

// A database that takes the connection and never answers keeps the start waiting; a stop ends it there at
// once rather than when the connection gives up.
TEST(HungDatabase, AStopWhileTheServerWaitsForItsDatabaseEndsItAtOnce) {
    const TempFolder folder("pelm-silent-database");
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const auto socketFile = (folder.path() / ".s.PGSQL.5432").string();
    std::strncpy(address.sun_path, socketFile.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 16), 0);  // connections wait in the queue, never accepted, never answered

    const std::string database = "postgresql:///x?host=" + folder.path().string() + "&user=nobody";
    const auto log = folder.path() / "server.log";
    const pid_t server = ::fork();
    ASSERT_GE(server, 0);
    if (server == 0) {
        const int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(out, STDERR_FILENO);
        ::execl(PELM_SERVER, PELM_SERVER, "--db", database.c_str(), nullptr);
        ::_exit(127);
    }
    std::this_thread::sleep_for(500ms);  // well inside the 3 s the connection may take
    ::kill(server, SIGTERM);
    const auto sent = std::chrono::steady_clock::now();
    int status = 0;
    while (::waitpid(server, &status, WNOHANG) == 0 && std::chrono::steady_clock::now() - sent < 2s)
        std::this_thread::sleep_for(10ms);
    const bool ended = std::chrono::steady_clock::now() - sent < 2s;
    if (!ended) ::kill(server, SIGKILL), ::waitpid(server, &status, 0);
    ::close(listener);
    std::ifstream said(log);
    const std::string text((std::istreambuf_iterator<char>(said)), {});
    ASSERT_TRUE(ended) << "pelm-server still ran 2 s after SIGTERM: " << text;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 128 + SIGTERM) << status;
    EXPECT_NE(text.find("pelm-server: stopped while starting; nothing was served"), std::string::npos)
        << text;
}

}  // namespace
}  // namespace pelm::testing
