// A content lookup by beacon through PelmAPIClient to the in-process pelm-server over loopback HTTPS, against
// a bare libcurl easy handle doing the same request with connection reuse, in the same run:
//   build/bench/bench/pelm_bench --benchmark_filter=Lookup
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <pelm/api/api_request.hpp>
#include <pelm/api/pelm_api_client.hpp>
#include <pelm/sdk/settings_manager.hpp>

#include "support/server_fixture.hpp"

namespace {

using namespace pelm;

struct Stage {
    std::filesystem::path folder =
        std::filesystem::temp_directory_path() / ("pelm-bench-" + std::to_string(::getpid()));
    std::unique_ptr<pelm::testing::TestServer> server;
    std::unique_ptr<pelm::testing::TestPlatform> platform;

    Stage() {
        server::PelmServer::Options options;
        options.certificateFolder = folder;
        server = std::make_unique<pelm::testing::TestServer>(options);
        server->store().seed(pelm::testing::testSeed());
        server->start();
        pelm::testing::TestPlatformOptions platformOptions;
        platformOptions.caFile = server->caFile();
        platform = std::make_unique<pelm::testing::TestPlatform>(platformOptions);
        SettingsManager::sharedInstance()->setApiHost(server->host());
    }
    ~Stage() {
        platform.reset();
        server->stop();
        std::filesystem::remove_all(folder);
    }
};

std::shared_ptr<Beacon> benchBeacon() {
    return std::make_shared<Beacon>(pelm::testing::kUuid, "1", "11");
}

void PelmAPIClientLookup(benchmark::State& state) {
    Stage stage;
    const PelmAPIClient client(pelm::testing::kToken, stage.server->host());
    const auto beacon = benchBeacon();
    int failures = 0;
    for (auto _ : state) {
        client.contentByHardware(beacon, "U",
                                 [&](bool ok, auto entry, auto) { failures += (ok && entry) ? 0 : 1; });
        stage.platform->loop->runUntilIdle();
    }
    if (failures != 0) state.SkipWithError("a lookup failed");
    state.counters["connections"] = static_cast<double>(stage.server->connectionCount());
}
BENCHMARK(PelmAPIClientLookup)->Unit(benchmark::kMicrosecond)->MinTime(2.0)->UseRealTime();

std::size_t collect(char* data, std::size_t size, std::size_t count, void* user) {
    static_cast<std::string*>(user)->append(data, size * count);
    return size * count;
}

void BareCurlLookup(benchmark::State& state) {
    Stage stage;
    const auto url = APIRequest(APIRequest::ContentByHardware{pelm::testing::kToken, benchBeacon(), "U"})
                         .urlRequest()
                         ->url;
    std::ifstream caFile(*stage.server->caFile());
    std::stringstream ca;
    ca << caFile.rdbuf();
    std::string pem = ca.str();
    CURL* easy = curl_easy_init();
    std::string body;
    curl_blob blob{pem.data(), pem.size(), CURL_BLOB_NOCOPY};
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_CAINFO_BLOB, &blob);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &collect);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
    int failures = 0;
    for (auto _ : state) {
        body.clear();
        long status = 0;
        failures += curl_easy_perform(easy) == CURLE_OK ? 0 : 1;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        failures += status == 200 ? 0 : 1;
        benchmark::DoNotOptimize(body);
    }
    curl_easy_cleanup(easy);
    if (failures != 0) state.SkipWithError("a lookup failed");
    state.counters["connections"] = static_cast<double>(stage.server->connectionCount());
}
BENCHMARK(BareCurlLookup)->Unit(benchmark::kMicrosecond)->MinTime(2.0)->UseRealTime();

}  // namespace
