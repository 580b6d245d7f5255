#include "pelm_server/server_metrics.hpp"

#include <algorithm>
#include <cstdio>

#include <pelm/sdk/pelm_constants.hpp>

namespace pelm::server {
namespace {

constexpr std::array<const char*, ServerMetrics::kRoutes> kRouteNames = {
    "status", "app_config", "content", "contents_by_hardware", "sessions", "metrics", "other"};
constexpr std::array<const char*, ServerMetrics::kRefusals> kRefusalNames = {"server_full", "address_full",
                                                                             "stopping"};
// Why an upload was not stored, by its answer's status.
constexpr std::array<const char*, 5> kUploadRefusals = {"unknown_token", "no_session", "database",
                                                        "too_large", "other"};

std::size_t uploadRefusal(int status) {
    switch (status) {
        case 401:
            return 0;
        case 422:
            return 1;
        case 503:
            return 2;
        case 413:
            return 3;
        default:
            return 4;
    }
}

std::size_t statusIndex(int status) {
    const auto& known = ServerMetrics::kStatuses;
    const auto found = std::find(known.begin(), known.end(), status);
    return static_cast<std::size_t>(found - known.begin());  // kStatuses.size(): "other"
}

// Appends "# HELP" and "# TYPE" of one series.
void header(std::string& out, const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

void sample(std::string& out, const char* name, std::uint64_t value, const char* labels = "") {
    out += name;
    out += labels;
    out += ' ';
    out += std::to_string(value);
    out += '\n';
}

std::string bound(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", seconds);
    return text;
}

}  // namespace

ServerMetrics::Route ServerMetrics::routeOf(std::string_view method, std::string_view path) {
    if (method == "GET" && path == "/metrics") return Route::Metrics;
    const std::string_view base = PelmConstants::apiBasePath;
    if (!path.starts_with(base)) return Route::Other;
    path.remove_prefix(base.size());
    if (method == "POST") return path == "/sessions" ? Route::Sessions : Route::Other;
    if (method != "GET") return Route::Other;
    if (path == "/contents/by_hardware") return Route::ContentsByHardware;
    if (path == "/app_config/by_app_token") return Route::AppConfig;
    if (path == "/status") return Route::Status;
    if (path.starts_with("/contents/")) return Route::Content;
    return Route::Other;
}

void ServerMetrics::answered(Route route, int status, std::chrono::steady_clock::duration took) {
    const auto index = static_cast<std::size_t>(route);
    requests_[index][statusIndex(status)].fetch_add(1, kRelaxed);
    const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
    auto& latency = latency_[index];
    const auto seconds = static_cast<double>(micros) / 1e6;
    const auto bucket = std::lower_bound(kBuckets.begin(), kBuckets.end(), seconds) - kBuckets.begin();
    latency.buckets[static_cast<std::size_t>(bucket)].fetch_add(1, kRelaxed);
    latency.count.fetch_add(1, kRelaxed);
    latency.microseconds.fetch_add(static_cast<std::uint64_t>(std::max<long long>(0, micros)), kRelaxed);
    if (route == Route::Sessions) {
        if (status == 201) {
            uploadsStored_.fetch_add(1, kRelaxed);
        } else {
            uploadsRefused_[uploadRefusal(status)].fetch_add(1, kRelaxed);
        }
    }
}

std::string ServerMetrics::text(const Gauges& gauges) const {
    std::string out;
    out.reserve(16 * 1024);
    header(out, "pelm_requests_total", "counter", "Requests answered, by route and status.");
    for (std::size_t route = 0; route < kRoutes; ++route) {
        for (std::size_t status = 0; status <= kStatuses.size(); ++status) {
            const auto count = requests_[route][status].load(kRelaxed);
            if (count == 0) continue;
            const auto code = status < kStatuses.size() ? std::to_string(kStatuses[status]) : "other";
            sample(out, "pelm_requests_total", count,
                   ("{route=\"" + std::string(kRouteNames[route]) + "\",status=\"" + code + "\"}").c_str());
        }
    }
    header(out, "pelm_request_duration_seconds", "histogram",
           "Time from a request's last byte to its answer being handed to the connection, by route.");
    for (std::size_t route = 0; route < kRoutes; ++route) {
        const auto& latency = latency_[route];
        const std::string label = "route=\"" + std::string(kRouteNames[route]) + "\"";
        std::uint64_t cumulative = 0;
        for (std::size_t bucket = 0; bucket <= kBuckets.size(); ++bucket) {
            cumulative += latency.buckets[bucket].load(kRelaxed);
            const auto le = bucket < kBuckets.size() ? bound(kBuckets[bucket]) : "+Inf";
            sample(out, "pelm_request_duration_seconds_bucket", cumulative,
                   ("{" + label + ",le=\"" + le + "\"}").c_str());
        }
        char sum[64];
        std::snprintf(sum, sizeof sum, "%.6f",
                      static_cast<double>(latency.microseconds.load(kRelaxed)) / 1e6);
        out += "pelm_request_duration_seconds_sum{" + label + "} " + sum + "\n";
        sample(out, "pelm_request_duration_seconds_count", latency.count.load(kRelaxed),
               ("{" + label + "}").c_str());
    }
    header(out, "pelm_open_connections", "gauge", "Client connections open now.");
    sample(out, "pelm_open_connections", gauges.openConnections);
    header(out, "pelm_refused_connections_total", "counter",
           "Connections closed as soon as they were accepted, by cause.");
    for (std::size_t cause = 0; cause < kRefusals; ++cause)
        sample(out, "pelm_refused_connections_total", refusals_[cause].load(kRelaxed),
               ("{cause=\"" + std::string(kRefusalNames[cause]) + "\"}").c_str());
    header(out, "pelm_evicted_connections_total", "counter",
           "Connections closed to give their slot to a new one: silent, or idle between requests.");
    sample(out, "pelm_evicted_connections_total", evicted_.load(kRelaxed));
    const std::string backend = "{backend=\"" + std::string(gauges.backend) + "\"}";
    header(out, "pelm_store_calls_total", "counter", "Calls made to the database, by backend.");
    sample(out, "pelm_store_calls_total", gauges.storeCalls, backend.c_str());
    header(out, "pelm_store_errors_total", "counter", "Calls to the database that failed, by backend.");
    sample(out, "pelm_store_errors_total", gauges.storeErrors, backend.c_str());
    header(out, "pelm_store_waiting_requests", "gauge",
           "Requests handed to the store's threads, not yet answered.");
    sample(out, "pelm_store_waiting_requests", gauges.waitingOnStore);
    header(out, "pelm_cache_hits_total", "counter", "Lookups answered from memory by the event loop.");
    sample(out, "pelm_cache_hits_total", cacheHits_.load(kRelaxed));
    header(out, "pelm_cache_misses_total", "counter", "Requests handed to the store's threads.");
    sample(out, "pelm_cache_misses_total", cacheMisses_.load(kRelaxed));
    header(out, "pelm_uploads_stored_total", "counter", "Visit uploads stored (answered 201).");
    sample(out, "pelm_uploads_stored_total", uploadsStored_.load(kRelaxed));
    header(out, "pelm_uploads_refused_total", "counter", "Visit uploads not stored, by reason.");
    for (std::size_t reason = 0; reason < kUploadRefusals.size(); ++reason)
        sample(out, "pelm_uploads_refused_total", uploadsRefused_[reason].load(kRelaxed),
               ("{reason=\"" + std::string(kUploadRefusals[reason]) + "\"}").c_str());
    if (gauges.accessLog) {
        header(out, "pelm_access_log_dropped_lines_total", "counter",
               "Access log lines dropped because the log could not be written fast enough.");
        sample(out, "pelm_access_log_dropped_lines_total", accessLogDropped_.load(kRelaxed));
    }
    return out;
}

}  // namespace pelm::server
