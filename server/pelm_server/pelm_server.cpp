#include "pelm_server/pelm_server.hpp"

#include <httplib.h>

#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <stdexcept>

#include <pelm/sdk/pelm_constants.hpp>

#include "pelm_server/form_body.hpp"

namespace pelm::server {
namespace {

constexpr const char* kJSON = "application/json; charset=utf-8";

void reply(httplib::Response& res, int status, const JSON& body) {
    res.status = status;
    res.set_content(jsonText(body), kJSON);
}

void error(httplib::Response& res, int status, const std::string& message) {
    reply(res, status, JSON{{"status", "error"}, {"message", message}});
}

void tooLarge(httplib::Response& res) {
    error(res, 413,
          "The request body is larger than the limit of 1 MiB (" + std::to_string(PelmServer::kMaxBodyBytes) +
              " bytes)");
}

std::string param(const httplib::Request& req, const char* key) {
    return req.has_param(key) ? req.get_param_value(key) : std::string();
}

std::filesystem::path defaultCertificateFolder() {
    return std::filesystem::temp_directory_path() / ("pelm-server-" + std::to_string(::getpid()));
}

}  // namespace

PelmServer::PelmServer(Options options)
    : options_(std::move(options)), store_(std::make_unique<ContentStore>(options_.database)) {
    std::filesystem::path cert, key;
    if (options_.certFile && options_.keyFile) {
        cert = *options_.certFile;
        key = *options_.keyFile;
    } else {
        const auto made = folderCertificate(options_.certificateFolder.value_or(defaultCertificateFolder()),
                                            365, options_.names);
        cert = made.certFile;
        key = made.keyFile;
        caFile_ = made.caFile;
    }
    http_ = std::make_unique<httplib::SSLServer>(cert.c_str(), key.c_str());
    if (!http_->is_valid()) throw std::runtime_error("cannot load the certificate " + cert.string());
    // Without this, Nagle's algorithm holds back each keep-alive reply by tens of milliseconds.
    http_->set_tcp_nodelay(true);
    http_->set_keep_alive_max_count(100000);
    http_->set_keep_alive_timeout(options_.keepAliveSeconds);
    http_->set_payload_max_length(kMaxBodyBytes);
    // SO_REUSEADDR only: a restart may take over a port still in TIME_WAIT, but a second server on a port in
    // use fails instead of sharing it (with SO_REUSEPORT, requests would alternate between the two).
    http_->set_socket_options([](int socket) {
        int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    const auto threads = static_cast<std::size_t>(std::max(1, options_.threads));
    http_->new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    routes();
}

PelmServer::~PelmServer() {
    stop();
}

void PelmServer::start() {
    errno = 0;
    port_ = options_.port == 0
                ? http_->bind_to_any_port(options_.bindAddress)
                : (http_->bind_to_port(options_.bindAddress, options_.port) ? options_.port : -1);
    if (port_ <= 0) {
        const int cause = errno;
        throw std::runtime_error("cannot listen on " + options_.bindAddress + ":" +
                                 std::to_string(options_.port) +
                                 (cause == EADDRINUSE ? ": the port is in use"
                                  : cause != 0        ? std::string(": ") + std::strerror(cause)
                                                      : std::string()));
    }
    thread_ = std::thread([this] { http_->listen_after_bind(); });
    // A stop before the loop runs would be lost and leave it listening for good; return once it runs.
    for (int waited = 0; !http_->is_running() && waited < 5000; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!http_->is_running()) throw std::runtime_error("the server did not start listening");
}

void PelmServer::stop() {
    if (http_) http_->stop();
    if (thread_.joinable()) thread_.join();
}

void PelmServer::setFault(const std::string& path, Fault fault) {
    std::lock_guard lock(mutex_);
    faults_[path] = std::move(fault);
}

void PelmServer::clearFaults() {
    std::lock_guard lock(mutex_);
    faults_.clear();
}

std::vector<PelmServer::ReceivedRequest> PelmServer::requests() const {
    std::lock_guard lock(mutex_);
    return {requests_.begin(), requests_.end()};
}

std::size_t PelmServer::connectionCount() const {
    std::lock_guard lock(mutex_);
    return connections_.size();
}

void PelmServer::record(const void* request, ReceivedRequest received) {
    if (options_.recordRequests == 0) return;
    std::lock_guard lock(mutex_);
    recordOf_[request] = dropped_ + requests_.size();
    connections_.insert(received.remotePort);
    requests_.push_back(std::move(received));
    if (requests_.size() > options_.recordRequests) {
        requests_.pop_front();
        ++dropped_;
    }
}

void PelmServer::recordBody(const void* request, const std::string& body) {
    if (options_.recordRequests == 0) return;
    std::lock_guard lock(mutex_);
    if (const auto found = recordOf_.find(request); found != recordOf_.end()) {
        if (found->second >= dropped_) requests_[found->second - dropped_].body = body;
        recordOf_.erase(found);
    }
}

// The server library reads the whole head before any handler of ours runs; this at least answers a head
// beyond what a client of ours ever sends with 431 instead of serving it.
bool PelmServer::headersWithinLimits(const void* request) {
    const auto& req = *static_cast<const httplib::Request*>(request);
    std::size_t bytes = req.target.size();
    for (const auto& [name, value] : req.headers) bytes += name.size() + value.size() + 4;
    return req.headers.size() <= kMaxHeaderCount && bytes <= kMaxHeaderBytes;
}

void PelmServer::routes() {
    http_->set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        if (!headersWithinLimits(&req)) {
            error(res, 431, "Request header fields too large");
            return httplib::Server::HandlerResponse::Handled;
        }
        record(&req, {req.method, req.path, req.target, req.get_header_value("Content-Type"),
                      req.get_header_value("Expect"), req.body, req.remote_port});
        std::optional<Fault> fault;
        {
            std::lock_guard lock(mutex_);
            if (const auto found = faults_.find(req.path); found != faults_.end()) fault = found->second;
        }
        if (!fault) return httplib::Server::HandlerResponse::Unhandled;
        std::this_thread::sleep_for(fault->delay);
        if (fault->dropConnection) {
            res.status = 200;
            res.set_content_provider(64, kJSON,
                                     [](std::size_t, std::size_t, httplib::DataSink&) { return false; });
            return httplib::Server::HandlerResponse::Handled;
        }
        if (!fault->status && !fault->body) return httplib::Server::HandlerResponse::Unhandled;
        res.status = fault->status.value_or(200);
        if (fault->location) res.set_header("Location", *fault->location);
        res.set_content(fault->body.value_or(R"({"status":"successful"})"), kJSON);
        return httplib::Server::HandlerResponse::Handled;
    });

    const std::string base(PelmConstants::apiBasePath);
    http_->Get(base + "/status", [this](const httplib::Request& req, httplib::Response& res) {
        if (!store_->appConfig(param(req, "app_token"))) return error(res, 401, "Unknown app token");
        reply(res, 200,
              {{"status", "successful"},
               {"version", "1.0.0"},
               {"api_version", "v1"},
               {"git_revision", "pelm-server"}});
    });
    http_->Get(base + "/app_config/by_app_token",
               [this](const httplib::Request& req, httplib::Response& res) {
                   const auto config = store_->appConfig(param(req, "app_token"));
                   if (!config) return error(res, 401, "Unknown app token");
                   reply(res, 200, {{"status", "successful"}, {"app_config", *config}});
               });
    http_->Get(base + R"(/contents/(-?\d+))", [this](const httplib::Request& req, httplib::Response& res) {
        const auto token = param(req, "app_token");
        if (!store_->appConfig(token)) return error(res, 401, "Unknown app token");
        std::int64_t id = 0;
        const auto digits = req.matches[1].str();
        if (std::from_chars(digits.data(), digits.data() + digits.size(), id).ec != std::errc())
            return error(res, 404, "No such content");
        const auto content = store_->content(token, id);
        if (!content) return error(res, 404, "No such content");
        reply(res, 200, {{"status", "successful"}, {"content", *content}});
    });
    http_->Get(base + "/contents/by_hardware", [this](const httplib::Request& req, httplib::Response& res) {
        const auto token = param(req, "app_token");
        if (!store_->appConfig(token)) return error(res, 401, "Unknown app token");
        if (param(req, "type") != "BLE") return error(res, 400, "Unsupported hardware type");
        const auto uuid = param(req, "uuid"), major = param(req, "major"), minor = param(req, "minor");
        const auto entry = store_->contentForBeacon(token, uuid, major, minor, "entry");
        const auto exit = store_->contentForBeacon(token, uuid, major, minor, "exit");
        if (!entry && !exit) return error(res, 404, "No content for this beacon");
        JSON body = {{"status", "successful"}};
        if (entry) body["content_entry"] = *entry;
        if (exit) body["content_exit"] = *exit;
        reply(res, 200, body);
    });
    // The body is read here, not by the server library, whose own limit for form bodies is 8 KiB: a long
    // visit must get up to kMaxBodyBytes through.
    http_->Post(base + "/sessions", [this](const httplib::Request& req, httplib::Response& res,
                                           const httplib::ContentReader& content) {
        std::string body;
        bool over = false;
        const bool whole = content([&](const char* data, std::size_t size) {
            over = body.size() + size > kMaxBodyBytes;
            if (!over) body.append(data, size);
            return !over;
        });
        if (!whole) {
            if (over || res.status == 413) return tooLarge(res);
            return error(res, 400, "The request body could not be read");
        }
        recordBody(&req, body);
        const auto form = parseFormBody(body);
        const auto text = [&](const char* key) {
            const auto found = form.find(key);
            return found != form.end() && found->is_string() ? found->get<std::string>() : std::string();
        };
        const auto token = text("app_token");
        if (!store_->appConfig(token)) return error(res, 401, "Unknown app token");
        const auto session = form.value("session", JSON());
        if (!session.is_object()) return error(res, 422, "The upload has no session");
        store_->storeSession(token, text("session_user"), session, form.value("beacon", JSON::object()),
                             form.value("session_logs", JSON::array()));
        reply(res, 201, {{"status", "successful"}});
    });
    http_->set_post_routing_handler([this](const httplib::Request& req, httplib::Response&) {
        std::lock_guard lock(mutex_);
        recordOf_.erase(&req);
    });
    // A body the server library refused by its length alone comes here with no text of its own.
    http_->set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.status == 413 && res.body.empty()) tooLarge(res);
    });
    http_->set_exception_handler([](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
        error(res, 500, "Internal server error");
    });
}

}  // namespace pelm::server
