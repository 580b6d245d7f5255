#include <pelm/platform/linux/curl_transport.hpp>

#include <curl/curl.h>
#include <openssl/crypto.h>

#include <atomic>
#include <deque>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

namespace pelm::platform {
namespace {

void initialiseCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        // OpenSSL frees its locks in an exit handler of its own. That handler ran before the worker below was
        // stopped and its connections closed, so a host that exited right after a call crashed now and then
        // (a read lock taken on freed memory). Set up first and without that handler, OpenSSL stays usable
        // until the process is gone; the kernel takes its memory back.
        OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
        curl_global_init(CURL_GLOBAL_DEFAULT);
    });
}

// Where the system keeps its authorities as a hashed folder; with the host's extra bundle as the CA file,
// both are trusted. (A combined in-memory bundle would also work, but curl compares it byte for byte on every
// connection reuse.)
std::string systemCAPath() {
    const auto* info = curl_version_info(CURLVERSION_NOW);
    return (info != nullptr && info->capath != nullptr) ? info->capath : "/etc/ssl/certs";
}

struct Origin {
    std::string scheme, host, port;
    bool operator==(const Origin&) const = default;
};

std::optional<Origin> originOf(const char* url) {
    CURLU* handle = curl_url();
    std::optional<Origin> origin;
    if (curl_url_set(handle, CURLUPART_URL, url, 0) == CURLUE_OK) {
        char *scheme = nullptr, *host = nullptr, *port = nullptr;
        if (curl_url_get(handle, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
            curl_url_get(handle, CURLUPART_HOST, &host, 0) == CURLUE_OK &&
            curl_url_get(handle, CURLUPART_PORT, &port, CURLU_DEFAULT_PORT) == CURLUE_OK) {
            std::string lowerHost = host;
            for (auto& c : lowerHost) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            origin = Origin{scheme, lowerHost, port};
        }
        curl_free(scheme);
        curl_free(host);
        curl_free(port);
    }
    curl_url_cleanup(handle);
    return origin;
}

}  // namespace

// Everything that touches curl lives on this worker's thread.
class CurlTransport::Worker {
  public:
    Worker(std::shared_ptr<MainQueue> queue, CurlTransportOptions options)
        : queue_(std::move(queue)), options_(std::move(options)) {
        initialiseCurlOnce();
        if (options_.extraCABundle) {
            extraCAFile_ = options_.extraCABundle->string();
            systemCAPath_ = systemCAPath();
        }
        multi_ = curl_multi_init();
        thread_ = std::thread([this] { loop(); });
    }

    ~Worker() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        curl_multi_wakeup(multi_);
        thread_.join();
        for (CURL* easy : idle_) curl_easy_cleanup(easy);
        curl_multi_cleanup(multi_);
    }

    void submit(HttpRequest request, std::function<void(HttpReply)> completion) {
        auto transfer = std::make_unique<Transfer>(std::move(request), std::move(completion));
        transfer->ticket = queue_->beginExternalWork();
        {
            std::lock_guard lock(mutex_);
            incoming_.push_back(std::move(transfer));
        }
        curl_multi_wakeup(multi_);
    }

  private:
    struct Transfer {
        Transfer(HttpRequest r, std::function<void(HttpReply)> c)
            : request(std::move(r)), completion(std::move(c)) {}
        ~Transfer() {
            if (easy != nullptr) curl_easy_cleanup(easy);
            if (headers != nullptr) curl_slist_free_all(headers);
        }
        HttpRequest request;
        std::function<void(HttpReply)> completion;
        CURL* easy = nullptr;
        curl_slist* headers = nullptr;
        std::string body;
        MainQueue::Ticket ticket = 0;
        std::size_t maxBodyBytes = 0;
        bool tooLarge = false;
        int redirects = 0;
        char error[CURL_ERROR_SIZE] = {};
    };

    static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* user) {
        auto* transfer = static_cast<Transfer*>(user);
        const auto bytes = size * count;
        if (transfer->body.size() + bytes > transfer->maxBodyBytes) {
            transfer->tooLarge = true;
            return 0;  // makes curl stop with a write error
        }
        transfer->body.append(data, bytes);
        return bytes;
    }

    void loop() {
        for (;;) {
            std::deque<std::unique_ptr<Transfer>> fresh;
            {
                std::lock_guard lock(mutex_);
                if (stopping_) break;
                fresh.swap(incoming_);
            }
            for (auto& transfer : fresh) start(std::move(transfer));
            int running = 0;
            curl_multi_perform(multi_, &running);
            collectFinished();
            curl_multi_poll(multi_, nullptr, 0, 1000, nullptr);
        }
        shutDown();
    }

    void start(std::unique_ptr<Transfer> transfer) {
        if (!idle_.empty()) {
            transfer->easy = idle_.back();
            idle_.pop_back();
        } else {
            transfer->easy = curl_easy_init();
        }
        if (transfer->easy == nullptr) return finish(std::move(transfer), "Unable to start the request");
        if (const auto refused = configure(*transfer))
            return finish(std::move(transfer), *refused, HttpReply::Failure::notSent);
        curl_multi_add_handle(multi_, transfer->easy);
        active_.push_back(std::move(transfer));
    }

    // Sets the transfer up; says why when curl refuses its URL, which it would otherwise report only as
    // "No URL set".
    std::optional<std::string> configure(Transfer& t) {
        CURL* easy = t.easy;
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &t);
        if (const auto refused = curl_easy_setopt(easy, CURLOPT_URL, t.request.url.c_str());
            refused != CURLE_OK) {
            return "The URL (" + std::to_string(t.request.url.size()) +
                   " bytes) was refused: " + curl_easy_strerror(refused);
        }
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "https");
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
        curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
        if (extraCAFile_) {
            curl_easy_setopt(easy, CURLOPT_CAINFO, extraCAFile_->c_str());
            curl_easy_setopt(easy, CURLOPT_CAPATH, systemCAPath_.c_str());
        }
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.connectTimeout.count()));
        curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
        curl_easy_setopt(easy, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(options_.maxBodyBytes));
        curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Worker::onBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, t.error);
        t.maxBodyBytes = options_.maxBodyBytes;
        if (t.headers != nullptr) {
            curl_slist_free_all(t.headers);
            t.headers = nullptr;
        }
        for (const auto& [name, value] : t.request.headers) {
            t.headers = curl_slist_append(t.headers, (name + ": " + value).c_str());
        }
        if (t.request.method == "POST") {
            // curl would otherwise ask larger bodies to wait for "100 Continue", costing a round trip or a
            // second.
            t.headers = curl_slist_append(t.headers, "Expect:");
            curl_easy_setopt(easy, CURLOPT_POST, 1L);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(t.request.body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, t.request.body.c_str());
        } else {
            curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        }
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, t.headers);
        return std::nullopt;
    }

    void collectFinished() {
        int left = 0;
        while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            Transfer* raw = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &raw);
            const CURLcode result = message->data.result;
            curl_multi_remove_handle(multi_, message->easy_handle);
            auto transfer = take(raw);
            if (transfer) done(std::move(transfer), result);
        }
    }

    std::unique_ptr<Transfer> take(Transfer* raw) {
        for (auto it = active_.begin(); it != active_.end(); ++it) {
            if (it->get() == raw) {
                auto transfer = std::move(*it);
                active_.erase(it);
                return transfer;
            }
        }
        return nullptr;
    }

    void done(std::unique_ptr<Transfer> t, CURLcode result) {
        using Failure = HttpReply::Failure;
        if (t->tooLarge || result == CURLE_FILESIZE_EXCEEDED) {
            return finish(std::move(t),
                          "The reply body is larger than " + std::to_string(options_.maxBodyBytes) + " bytes",
                          Failure::badReply);
        }
        if (result == CURLE_OUT_OF_MEMORY) {
            // curl builds a request of at most 1 MiB; a longer one (a huge token) is refused this way.
            return finish(std::move(t), "The request could not be made: it is larger than curl sends (1 MiB)",
                          Failure::notSent);
        }
        if (result != CURLE_OK) {
            // Read before `t` is handed on: the order in which arguments are evaluated is unspecified.
            std::string error = t->error[0] != '\0' ? std::string(t->error) : curl_easy_strerror(result);
            // A reply whose body was cut short came from a server that was reached.
            const bool answered = result == CURLE_PARTIAL_FILE || result == CURLE_BAD_CONTENT_ENCODING;
            return finish(std::move(t), std::move(error),
                          answered ? Failure::badReply : Failure::noConnection);
        }
        long status = 0;
        curl_easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
        if (status >= 300 && status < 400) {
            char* location = nullptr;
            curl_easy_getinfo(t->easy, CURLINFO_REDIRECT_URL, &location);
            if (location != nullptr) return redirect(std::move(t), status, std::string(location));
        }
        HttpReply reply;
        reply.status = status;
        reply.body = std::move(t->body);
        deliver(std::move(t), std::move(reply));
    }

    // The token travels in the query, so a redirect is only followed where the token was going anyway.
    void redirect(std::unique_ptr<Transfer> t, long status, const std::string& location) {
        const auto from = originOf(t->request.url.c_str());
        const auto to = originOf(location.c_str());
        if (!from || !to || to->scheme != "https" || !(*from == *to)) {
            return finish(
                std::move(t),
                "Refused a redirect to another host or scheme (HTTP " + std::to_string(status) + ")",
                HttpReply::Failure::badReply);
        }
        if (++t->redirects > options_.maxRedirects) {
            return finish(std::move(t),
                          "Too many redirects (more than " + std::to_string(options_.maxRedirects) + ")",
                          HttpReply::Failure::badReply);
        }
        t->request.url = location;
        if (status == 303) {
            t->request.method = "GET";
            t->request.body.clear();
        }
        t->body.clear();
        configure(*t);
        curl_multi_add_handle(multi_, t->easy);
        active_.push_back(std::move(t));
    }

    void finish(std::unique_ptr<Transfer> transfer, std::string error,
                HttpReply::Failure failure = HttpReply::Failure::noConnection) {
        HttpReply reply;
        reply.error = std::move(error);
        reply.failure = failure;
        deliver(std::move(transfer), std::move(reply));
    }

    void deliver(std::unique_ptr<Transfer> transfer, HttpReply reply) {
        // Finished handles are kept for the next calls: setting one up costs more than resetting it.
        if (transfer->easy != nullptr && !draining_ && idle_.size() < kIdleHandles) {
            curl_easy_reset(transfer->easy);
            idle_.push_back(transfer->easy);
            transfer->easy = nullptr;
        }
        queue_->finishExternalWork(transfer->ticket,
                                   [completion = std::move(transfer->completion),
                                    reply = std::move(reply)]() mutable { completion(std::move(reply)); });
    }

    void shutDown() {
        draining_ = true;
        for (auto& transfer : active_) {
            curl_multi_remove_handle(multi_, transfer->easy);
            finish(std::move(transfer), "The request was cancelled");
        }
        active_.clear();
        std::lock_guard lock(mutex_);
        for (auto& transfer : incoming_) finish(std::move(transfer), "The request was cancelled");
        incoming_.clear();
    }

    static constexpr std::size_t kIdleHandles = 8;
    std::shared_ptr<MainQueue> queue_;
    CurlTransportOptions options_;
    std::vector<CURL*> idle_;
    bool draining_ = false;  // worker thread only
    std::optional<std::string> extraCAFile_;
    std::string systemCAPath_;
    CURLM* multi_ = nullptr;
    std::thread thread_;
    std::mutex mutex_;
    bool stopping_ = false;
    std::deque<std::unique_ptr<Transfer>> incoming_;
    std::list<std::unique_ptr<Transfer>> active_;
};

CurlTransport::CurlTransport(std::shared_ptr<MainQueue> mainQueue, CurlTransportOptions options)
    : worker_(std::make_unique<Worker>(std::move(mainQueue), std::move(options))) {}

CurlTransport::~CurlTransport() = default;

void CurlTransport::send(HttpRequest request, std::function<void(HttpReply)> completion) {
    worker_->submit(std::move(request), std::move(completion));
}

}  // namespace pelm::platform
