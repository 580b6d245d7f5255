// Two pelm-server processes on one PostgreSQL database, one of them killed while phones upload to both.
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
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

std::int64_t storedCount(const std::string& database) {
    auto* connection = PQconnectdb(database.c_str());
    auto* result = PQexec(connection, "SELECT count(*) FROM sessions");
    const auto count = PQresultStatus(result) == PGRES_TUPLES_OK ? std::atoll(PQgetvalue(result, 0, 0)) : -1;
    PQclear(result);
    PQfinish(connection);
    return count;
}

std::string upload(int phone) {
    return "app_token=" + std::string(kToken) + "&session_user=phone-" + std::to_string(phone) +
           "&session%5Bstart_time%5D=2016-07-16T19%3A20%3A30.450%2B0200&beacon%5Buuid%5D=" + kUuid +
           "&session_logs%5B%5D%5Buuid%5D=" + kUuid +
           "&session_logs%5B%5D%5Bminor%5D=" + std::to_string(phone);
}

TEST(SharedDatabase, TwoServersOneKilledMidRunEveryAnsweredUploadIsStoredOnce) {
    const TempFolder folder("pelm-shared-database");
    const auto certificate = server::makeThrowawayCertificate(folder.path());
    const auto seedFile = folder.path() / "seed.json";
    std::ofstream(seedFile) << jsonText(testSeed());
    const auto database = testDatabase();
    const std::vector<std::string> common{
        "--db", database, "--cert", certificate.certFile.string(), "--key", certificate.keyFile.string()};
    auto first = common, second = common;
    first.insert(first.end(), {"--seed", seedFile.string()});
    ServerProcess a(first);
    ServerProcess b(second);

    TestPlatformOptions options;
    options.caFile = certificate.caFile;
    TestPlatform platform(options);
    constexpr int kPhones = 600;
    std::map<int, int> status;  // phone -> last status
    int answeredByA = 0, answeredByB = 0;
    const auto send = [&](int phone, const std::string& host, int* answered) {
        platform.http->send({"POST",
                             "https://" + host + "/api/v1/sessions",
                             {{"Content-Type", "application/x-www-form-urlencoded"}},
                             upload(phone)},
                            [&, phone, answered](platform::HttpReply reply) {
                                status[phone] = reply.status;
                                if (reply.status == 201) ++*answered;
                            });
    };
    // The second server dies once a third of the uploads are stored, with the rest in flight or to come.
    std::atomic<std::int64_t> storedAtKill{-1};
    std::thread killer([&] {
        while (storedCount(database) < kPhones / 3) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        b.killNow();
        storedAtKill = storedCount(database);
    });
    for (int phone = 0; phone < kPhones; ++phone) {
        send(phone, phone % 2 == 0 ? a.host() : b.host(), phone % 2 == 0 ? &answeredByA : &answeredByB);
        if (phone % 50 == 49) platform.loop->runUntilIdle();
    }
    platform.loop->runUntilIdle();
    killer.join();
    ASSERT_LT(storedAtKill.load(), kPhones) << "the kill came after every upload";

    // What was not answered 201 is sent again to the server still up, as a phone keeps its visit and does.
    int retried = 0, answeredOnRetry = 0;
    for (const auto& [phone, last] : std::map<int, int>(status)) {
        if (last == 201) continue;
        ++retried;
        send(phone, a.host(), &answeredOnRetry);
    }
    platform.loop->runUntilIdle();
    std::cout << "[ counts   ] 201 from A " << answeredByA << ", from B " << answeredByB
              << ", stored when B was killed " << storedAtKill << ", sent again " << retried
              << ", 201 on the second try " << answeredOnRetry << "\n";
    EXPECT_GT(answeredByB, 0);
    EXPECT_GT(retried, 0);
    EXPECT_EQ(answeredByA + answeredByB + answeredOnRetry, kPhones);

    const auto stored = server::openContentStore(database)->sessions();
    std::map<std::string, int> timesStored;
    for (const auto& session : stored) ++timesStored[session["session_user"].get<std::string>()];
    EXPECT_EQ(timesStored.size(), std::size_t{kPhones});
    for (const auto& [user, times] : timesStored) EXPECT_EQ(times, 1) << user;
}

}  // namespace
}  // namespace pelm::testing
