// What an operator sees of a running pelm-server: GET /metrics in Prometheus' text format and the access log.
#include <gmock/gmock.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "pelm_server/access_log.hpp"
#include "pelm_server/server_metrics.hpp"
#include "support/server_fixture.hpp"

namespace pelm::server {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class ServerOperations : public testing::ServerTest {
  protected:
    void configure(PelmServer::Options& options) override { options.accessLog = folder_ / "access.log"; }

    platform::HttpReply exchange(std::string method, const std::string& path, std::string body = {}) {
        std::optional<platform::HttpReply> reply;
        std::vector<std::pair<std::string, std::string>> headers;
        if (method == "POST") headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
        platform_->http->send(
            {std::move(method), "https://" + server_->host() + path, headers, std::move(body)},
            [&](platform::HttpReply r) { reply = std::move(r); });
        settle();
        return reply.value_or(platform::HttpReply{0, {}, "no reply"});
    }
    std::string lookup(const std::string& token) const {
        return "/api/v1/contents/by_hardware?app_token=" + token + "&type=BLE&uuid=" + testing::kUuid +
               "&major=1&minor=11";
    }
    std::string upload(const std::string& token, bool withSession = true) const {
        return "app_token=" + token + "&session_user=u" + (withSession ? "&session%5Bstart_time%5D=x" : "");
    }

    // "name{labels}" -> value, and the names declared by # TYPE, for a scrape.
    struct Scrape {
        std::map<std::string, double> samples;
        std::set<std::string> typed;
        std::vector<std::string> malformed;
        double at(const std::string& series) const {
            const auto found = samples.find(series);
            return found == samples.end() ? -1 : found->second;
        }
    };
    Scrape scrape() {
        const auto reply = exchange("GET", "/metrics");
        EXPECT_EQ(reply.status, 200) << reply.error.value_or("");
        Scrape scrape;
        static const std::regex kSample(R"(^([a-z_]+)(\{[a-z_]+="[^"]*"(,[a-z_]+="[^"]*")*\})? (\S+)$)");
        std::istringstream lines(reply.body);
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("# TYPE ", 0) == 0) {
                scrape.typed.insert(line.substr(7, line.find(' ', 7) - 7));
                continue;
            }
            if (line.rfind("# HELP ", 0) == 0) continue;
            std::smatch match;
            if (!std::regex_match(line, match, kSample)) {
                scrape.malformed.push_back(line);
                continue;
            }
            auto family = match[1].str();
            for (const char* suffix : {"_bucket", "_sum", "_count"}) {
                if (family.ends_with(suffix) && !scrape.typed.count(family))
                    family.resize(family.size() - std::string(suffix).size());
            }
            if (!scrape.typed.count(family)) scrape.malformed.push_back("no # TYPE before: " + line);
            scrape.samples[match[1].str() + match[2].str()] = std::stod(match[4].str());
        }
        return scrape;
    }
};

TEST_F(ServerOperations, MetricsCountEachAnswerByRouteStatusAndOutcome) {
    for (int i = 0; i < 5; ++i) ASSERT_EQ(exchange("GET", lookup(testing::kToken)).status, 200);
    EXPECT_EQ(exchange("GET", lookup("nobody")).status, 401);
    EXPECT_EQ(exchange("GET", "/api/v1/status?app_token=" + std::string(testing::kToken)).status, 200);
    EXPECT_EQ(exchange("POST", "/api/v1/sessions", upload(testing::kToken)).status, 201);
    EXPECT_EQ(exchange("POST", "/api/v1/sessions", upload("nobody")).status, 401);
    EXPECT_EQ(exchange("POST", "/api/v1/sessions", upload(testing::kToken, false)).status, 422);
    EXPECT_EQ(exchange("GET", "/api/v1/nowhere").status, 404);

    const auto metrics = scrape();
    EXPECT_THAT(metrics.malformed, ::testing::IsEmpty());
    const auto requests = [&](const char* route, const char* status) {
        return metrics.at(std::string("pelm_requests_total{route=\"") + route + "\",status=\"" + status +
                          "\"}");
    };
    EXPECT_EQ(requests("contents_by_hardware", "200"), 5);
    EXPECT_EQ(requests("contents_by_hardware", "401"), 1);
    EXPECT_EQ(requests("status", "200"), 1);
    EXPECT_EQ(requests("sessions", "201"), 1);
    EXPECT_EQ(requests("sessions", "401"), 1);
    EXPECT_EQ(requests("sessions", "422"), 1);
    EXPECT_EQ(requests("other", "404"), 1);
    EXPECT_EQ(metrics.at("pelm_uploads_stored_total"), 1);
    EXPECT_EQ(metrics.at("pelm_uploads_refused_total{reason=\"unknown_token\"}"), 1);
    EXPECT_EQ(metrics.at("pelm_uploads_refused_total{reason=\"no_session\"}"), 1);
    EXPECT_EQ(metrics.at("pelm_uploads_refused_total{reason=\"database\"}"), 0);
    // The first lookup is made by the store's threads; the four after it come from memory.
    EXPECT_EQ(metrics.at("pelm_cache_hits_total"), 4);
    EXPECT_EQ(metrics.at("pelm_cache_misses_total"), 7);
    EXPECT_GE(metrics.at("pelm_open_connections"), 1);
    const std::string backend = "{backend=\"" + std::string(server_->store().backend()) + "\"}";
    EXPECT_GT(metrics.at("pelm_store_calls_total" + backend), 0);
    EXPECT_EQ(metrics.at("pelm_store_errors_total" + backend), 0);
    for (const auto& cause : {"server_full", "address_full", "stopping"})
        EXPECT_EQ(metrics.at("pelm_refused_connections_total{cause=\"" + std::string(cause) + "\"}"), 0);

    // Each route's histogram: cumulative buckets that end at its count, which is its requests.
    for (const auto& [route, count] :
         std::map<std::string, double>{{"contents_by_hardware", 6}, {"sessions", 3}, {"status", 1}}) {
        const std::string label = "route=\"" + route + "\"";
        double previous = 0;
        for (const auto bound : ServerMetrics::kBuckets) {
            char le[32];
            std::snprintf(le, sizeof le, "%g", bound);
            const auto bucket =
                metrics.at("pelm_request_duration_seconds_bucket{" + label + ",le=\"" + le + "\"}");
            EXPECT_GE(bucket, previous) << route << " le=" << le;
            previous = bucket;
        }
        EXPECT_EQ(metrics.at("pelm_request_duration_seconds_bucket{" + label + ",le=\"+Inf\"}"), count);
        EXPECT_EQ(metrics.at("pelm_request_duration_seconds_count{" + label + "}"), count);
        EXPECT_GE(metrics.at("pelm_request_duration_seconds_sum{" + label + "}"), 0);
    }
    // A scrape counts itself once it is answered.
    EXPECT_EQ(scrape().at("pelm_requests_total{route=\"metrics\",status=\"200\"}"), 1);
}

// One line per request, in order, written without the query: the app token a phone sends is nowhere in it.
TEST_F(ServerOperations, TheAccessLogHasALinePerRequestAndNoAppToken) {
    const auto found = exchange("GET", lookup(testing::kToken));
    const auto stored = exchange("POST", "/api/v1/sessions", upload(testing::kToken));
    const auto missing = exchange("GET", "/api/v1/nowhere?app_token=" + std::string(testing::kToken));
    ASSERT_EQ(found.status, 200);
    ASSERT_EQ(stored.status, 201);
    ASSERT_EQ(missing.status, 404);
    server_->stop();  // every line written

    std::ifstream file(folder_ / "access.log");
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), 3u);
    static const std::regex kLine(
        R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z 127\.0\.0\.1 (GET|POST) (/\S*) (\d{3}) (\d+) \d+\.\d{6}$)");
    const std::vector<std::tuple<std::string, std::string, int, std::size_t>> expected = {
        {"GET", "/api/v1/contents/by_hardware", 200, found.body.size()},
        {"POST", "/api/v1/sessions", 201, stored.body.size()},
        {"GET", "/api/v1/nowhere", 404, missing.body.size()}};
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(lines[i], match, kLine)) << lines[i];
        EXPECT_EQ(match[1].str(), std::get<0>(expected[i]));
        EXPECT_EQ(match[2].str(), std::get<1>(expected[i]));
        EXPECT_EQ(std::stoi(match[3].str()), std::get<2>(expected[i]));
        EXPECT_EQ(std::stoul(match[4].str()), std::get<3>(expected[i]));
        EXPECT_THAT(lines[i], Not(HasSubstr(testing::kToken)));
        EXPECT_THAT(lines[i], Not(HasSubstr("app_token")));
    }
}

TEST(AccessLog, APathThatIsNoPlainTextIsEscapedAndAnUnwritableLogIsRefusedByName) {
    const testing::TempFolder folder("pelm-access-log");
    {
        AccessLog log(folder.path() / "access.log");
        log.write("10.0.0.1", "GET", "/a b\n%\x01\xff?app_token=secret", 200, 5,
                  std::chrono::milliseconds(2));
    }
    std::ifstream file(folder.path() / "access.log");
    std::string line;
    std::getline(file, line);
    EXPECT_THAT(line, ::testing::EndsWith(" 10.0.0.1 GET /a%20b%0A%25%01%FF 200 5 0.002000"));
    EXPECT_THROW(AccessLog(folder.path() / "missing" / "access.log"), std::runtime_error);
}

// A disk that takes nothing (here /dev/full) costs the log its lines, counted, and the server nothing.
TEST(AccessLog, LinesADiskDoesNotTakeAreCountedAsDropped) {
    AccessLog log("/dev/full");
    for (int i = 0; i < 3; ++i)
        log.write("10.0.0.1", "GET", "/api/v1/status", 200, 5, std::chrono::milliseconds(1));
    log.flush();
    EXPECT_EQ(log.takeDropped(), 3u);
    EXPECT_EQ(log.takeDropped(), 0u);
}

}  // namespace
}  // namespace pelm::server
