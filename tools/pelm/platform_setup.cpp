#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include <pelm/platform/linux/file_key_value_store.hpp>
#include <pelm/platform/linux/linux_platform.hpp>
#include <pelm/platform/run_loop.hpp>

#include <pelm/api/api_request.hpp>

#include "cli.hpp"
#include "pelm_lab/refusal_watch.hpp"
#include "token_mask.hpp"

namespace pelm::cli {
namespace {

std::shared_ptr<RefusalWatch>& watch() {
    static std::shared_ptr<RefusalWatch> installed;
    return installed;
}

constexpr const char* kCAKey = "ca_file";

// The library's store, with every write read back: a write the store could not make (a full disk, a
// read-only folder) is logged by the store and leaves the old value, and the tool must not say "stored".
// Writes the settings store refused, as its log lines tell ("Unable to store ...").
std::atomic<int>& refusedWrites() {
    static std::atomic<int> count{0};
    return count;
}

// A write is taken as failed when the store says so. One it does not complain of is read back; a read that
// fails for a moment is tried again, and a value still not read back is reported apart: it may well be on
// the disk.
class CheckedStore final : public platform::KeyValueStore {
  public:
    explicit CheckedStore(std::shared_ptr<platform::KeyValueStore> inner) : inner_(std::move(inner)) {}
    std::optional<std::string> get(std::string_view key) const override { return inner_->get(key); }
    void set(std::string_view key, std::string_view value) override {
        const int before = refusedWrites().load();
        inner_->set(key, value);
        check(key, before, [&] { return inner_->get(key) == value; });
    }
    void remove(std::string_view key) override {
        const int before = refusedWrites().load();
        inner_->remove(key);
        check(key, before, [&] { return !inner_->get(key); });
    }
    std::vector<std::string> failed_, unconfirmed_;

  private:
    void check(std::string_view key, int refusedBefore, const std::function<bool()>& readsBack) {
        if (refusedWrites().load() != refusedBefore) return void(failed_.emplace_back(key));
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (readsBack()) return;
        }
        unconfirmed_.emplace_back(key);
    }
    std::shared_ptr<platform::KeyValueStore> inner_;
};

std::shared_ptr<CheckedStore>& checkedStore() {
    static std::shared_ptr<CheckedStore> installed;
    return installed;
}

platform::LinuxPlatformOptions platformOptions(const Arguments& args) {
    platform::LinuxPlatformOptions options;
    options.appName = args.option("app").value_or("");
    if (auto dir = args.option("config-dir")) options.configDirectory = *dir;
    options.appVersion = "pelm-cli";
    return options;
}

// What the tool remembers for an app, in its own file beside the library's settings ("shop.json" and
// "shop.cli"), so that nothing of the tool's lands among the keys the library reads.
platform::FileKeyValueStore toolFile(const Arguments& args) {
    auto path = platform::settingsFilePath(platformOptions(args));
    path.replace_extension(".cli");
    return platform::FileKeyValueStore(path);
}

// The library's log lines, and after the one a newcomer meets first a line that says what to do: a server
// whose certificate this machine does not trust (`pelm serve` makes its own) needs the CA given with --ca.
class HintingLog final : public platform::LogSink {
  public:
    explicit HintingLog(std::shared_ptr<platform::LogSink> inner) : inner_(std::move(inner)) {}
    void write(std::string_view line) override {
        if (inner_) inner_->write(line);
        if (line.find("Unable to store ") != std::string_view::npos ||
            line.find("Unable to remove ") != std::string_view::npos)
            ++refusedWrites();
        if (line.find("SSL certificate problem") != std::string_view::npos && !hinted_.exchange(true)) {
            std::fprintf(
                stderr,
                "pelm: this machine does not trust the server's certificate; give the CA that signed it "
                "with --ca FILE (pelm serve names the file it made)\n");
        }
    }

  private:
    std::shared_ptr<platform::LogSink> inner_;
    std::atomic<bool> hinted_{false};
};

}  // namespace

std::optional<std::string> rememberedCA(const Arguments& args) {
    return toolFile(args).get(kCAKey);
}

std::optional<std::string> rememberCA(const Arguments& args, const std::string& ca) {
    if (!std::ifstream(ca)) return "--ca " + ca + ": cannot read it";
    std::error_code ignored;
    const auto absolute = std::filesystem::absolute(ca, ignored).string();
    auto file = toolFile(args);
    file.set(kCAKey, absolute);
    if (file.get(kCAKey) != absolute) return "--ca " + ca + ": cannot remember it in " + file.file().string();
    return std::nullopt;
}

std::shared_ptr<platform::Platform> installPlatform(const Arguments& args) {
    auto options = platformOptions(args);
    if (auto ca = args.option("ca")) {
        options.extraCABundle = *ca;
    } else if (auto remembered = rememberedCA(args)) {
        // A CA file moved or deleted since is no reason to refuse work that may not need it.
        if (std::ifstream(*remembered)) {
            options.extraCABundle = *remembered;
        } else {
            std::fprintf(
                stderr,
                "pelm: warning: the CA remembered for this app, %s, cannot be read; going on without "
                "it (give --ca again)\n",
                remembered->c_str());
        }
    }
    auto services = platform::makeLinuxPlatform(options);
    watch() = std::make_shared<RefusalWatch>(services->http);
    services->http = watch();
    checkedStore() = std::make_shared<CheckedStore>(services->store);
    services->store = checkedStore();
    services->log = std::make_shared<HintingLog>(services->log);
    platform::install(services);
    return services;
}

std::vector<std::string> unstoredSettings() {
    return checkedStore() ? checkedStore()->failed_ : std::vector<std::string>{};
}

std::vector<std::string> unconfirmedSettings() {
    return checkedStore() ? checkedStore()->unconfirmed_ : std::vector<std::string>{};
}

std::optional<std::string> hostArgumentProblem(const Arguments& args) {
    const auto host = args.option("host");
    if (!host) return std::nullopt;
    // The library takes a host as a host app gives it; a person typing a URL here is told the form instead.
    auto problem = APIRequest::hostProblem(*host);
    if (!problem && host->find("://") != std::string::npos) problem = "it is a URL";
    if (!problem && host->find_first_of("/?") != std::string::npos) problem = "it holds a path";
    if (!problem) return std::nullopt;
    return "--host " + *host + ": " + *problem +
           "; give the host alone, as host or host:port (e.g. localhost:8443)";
}

std::optional<std::string> tokenRefusal() {
    const auto status = watch() ? watch()->refused() : std::nullopt;
    if (!status) return std::nullopt;
    return "the server refused the app token (HTTP " + std::to_string(*status) + ")";
}

bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    auto* loop = dynamic_cast<platform::RunLoop*>(platform::current()->mainQueue.get());
    return loop != nullptr && loop->runUntil(done, timeout);
}

void printSettings(const SettingsManager& settings, const Arguments& args) {
    const auto show = [](const std::string& key, const std::optional<std::string>& value) {
        std::printf("  %-22s %s\n", key.c_str(), value ? ("\"" + *value + "\"").c_str() : "(not set)");
    };
    auto token = settings.appToken();
    if (token && !args.flag("show-token")) token = maskedToken(*token) + " (--show-token shows it whole)";
    show(settings.appTokenKey, token);
    show(settings.apiHostKey, settings.apiHost());
    show(settings.defaultBeaconUUIDKey, settings.defaultBeaconUUID());
    show(settings.kontaktIoAPIKeyKey, settings.kontaktIoAPIKey());
    if (const auto ca = rememberedCA(args))
        std::printf("  %-22s %s (pelm's own; used when --ca is not given)\n", "CA", ca->c_str());
}

}  // namespace pelm::cli
