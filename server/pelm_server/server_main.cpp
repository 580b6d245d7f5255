#include "pelm_server/server_main.hpp"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <optional>
#include <vector>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/linux/bounded_file.hpp>

#include "pelm_cli/stop_signals.hpp"
#include "pelm_cli/text_numbers.hpp"
#include "pelm_server/certificates.hpp"
#include "pelm_server/content_store.hpp"
#include "pelm_server/demo_seed.hpp"
#include "pelm_server/pelm_server.hpp"
#include "pelm_server/store_factory.hpp"

#include <unistd.h>

namespace pelm::server {
namespace {

// A mistake on the command line, told apart from a failure by its exit code.
struct UsageError {
    std::string message;
};

// How long a stop waits for the database after the connections have closed: with the second the answers
// in flight are given, a stop takes under three.
constexpr std::chrono::milliseconds kStoreCallsAtStop{1500};

int say(const ServeStyle& style, const std::string& message, int code) {
    std::fprintf(stderr, "%s: %s\n", style.program.c_str(), message.c_str());
    return code;
}

// A whole number from `low` to `high`, or the usage error `what`.
long long numberOption(const cli::Arguments& args, const char* name, long long low, long long high,
                       long long otherwise, const std::string& what) {
    const auto text = args.option(name);
    if (!text) return otherwise;
    const auto value = cli::wholeNumber(*text, low, high);
    if (!value) throw UsageError{what};
    return *value;
}

PelmServer::Options readOptions(const cli::Arguments& args, const ServeStyle& style) {
    PelmServer::Options options;
    options.database = args.option("db").value_or("pelm-server.db");
    options.port = static_cast<int>(numberOption(args, "port", 1, 65535, style.port.value_or(0),
                                                 "--port takes a port number from 1 to 65535"));
    options.threads = static_cast<int>(
        numberOption(args, "threads", 1, 256, options.threads, "--threads takes a number from 1 to 256"));
    options.maxConnections = static_cast<std::size_t>(
        numberOption(args, "max-connections", 1, 1000000, static_cast<long long>(options.maxConnections),
                     "--max-connections takes a number from 1 to 1000000"));
    options.maxConnectionsPerAddress = static_cast<std::size_t>(
        numberOption(args, "max-connections-per-address", 1, 1000000,
                     static_cast<long long>(options.maxConnectionsPerAddress),
                     "--max-connections-per-address takes a number from 1 to 1000000"));
    options.bindAddress = args.option("bind").value_or(options.bindAddress);
    if (const auto names = args.option("name")) {
        if (const auto problem = readServerNames(*names, options.names)) throw UsageError{*problem};
    }
    if (const auto cert = args.option("cert")) options.certFile = *cert;
    if (const auto key = args.option("key")) options.keyFile = *key;
    if (options.certFile.has_value() != options.keyFile.has_value())
        throw UsageError{"--cert and --key go together"};
    if (options.certFile && !options.names.empty())
        throw UsageError{"--name goes into the throwaway certificate; --cert brings its own names"};
    if (!options.certFile) options.certificateFolder = std::filesystem::absolute("pelm-server-certificate");
    if (const auto log = args.option("access-log")) {
        if (log->empty()) throw UsageError{"--access-log takes a file"};
        options.accessLog = *log;
    }
    return options;
}

// The seed to serve: the file given, the demo data, or none.
std::optional<JSON> readSeed(const cli::Arguments& args, const ServeStyle& style) {
    if (const auto path = args.option("seed")) {
        auto read = platform::readJSONFile(*path);
        if (!read.json) throw std::runtime_error(read.error);
        return std::move(read.json);
    }
    if (style.demoData) return parseJSONText(demoSeedText());
    return std::nullopt;
}

// What a service manager runs before a start (ExecStartPre=): everything a start would read is read, nothing
// is served, nothing is made. One line per part; the first problem ends it with exit code 1.
int check(const PelmServer::Options& options, const std::optional<JSON>& seed, const ServeStyle& style) {
    const auto line = [&](const std::string& part, const std::string& text) {
        std::printf("%s: %s: %s\n", style.program.c_str(), part.c_str(), text.c_str());
        std::fflush(stdout);  // before a problem's line on standard error
    };
    line("options", "read");
    if (seed) {
        openContentStore(":memory:")->seed(*seed);
        const auto count = [](std::size_t n, const char* what) {
            return std::to_string(n) + " " + what + (n == 1 ? "" : "s");
        };
        line("seed", count(seed->value("apps", JSON::array()).size(), "app") + ", " +
                         count(seed->value("contents", JSON::array()).size(), "content"));
    }
    const auto sqlite = !isPostgresAddress(options.database) && options.database != ":memory:";
    if (sqlite && !std::filesystem::exists(options.database)) {
        const auto folder = std::filesystem::absolute(options.database).parent_path();
        if (::access(folder.c_str(), W_OK) != 0)
            throw std::runtime_error("cannot make the database " + options.database + ": the folder " +
                                     folder.string() + " is not writable");
        line("database", "SQLite file " + options.database + " (made at the start)");
    } else {
        try {
            line("database",
                 openContentStore(options.database, ContentStore::Open::ExistingOnly)->description());
        } catch (const std::exception& e) {
            throw std::runtime_error("the database " + options.database + " cannot be used: " + e.what());
        }
    }
    if (options.certFile && options.keyFile) {
        if (const auto problem = certificateProblem(*options.certFile, *options.keyFile))
            throw std::runtime_error(*problem);
        line("certificate", *options.certFile);
    } else if (const std::filesystem::path folder = *options.certificateFolder;
               std::filesystem::exists(folder / "cert.pem")) {
        if (const auto problem = certificateProblem(folder / "cert.pem", folder / "key.pem"))
            line("certificate", *problem + "; a new throwaway one is made at the start");
        else
            line("certificate", "throwaway, in " + folder.string());
    } else {
        line("certificate", "a throwaway one is made in " + folder.string() + " at the start");
    }
    if (options.accessLog) {
        const auto folder = std::filesystem::absolute(*options.accessLog).parent_path();
        const bool writable = std::filesystem::exists(*options.accessLog)
                                  ? ::access(options.accessLog->c_str(), W_OK) == 0
                                  : ::access(folder.c_str(), W_OK) == 0;
        if (!writable) throw std::runtime_error("cannot write the access log " + *options.accessLog);
        line("access log", *options.accessLog);
    }
    std::printf("%s: ready to serve\n", style.program.c_str());
    return 0;
}

int listSessions(const PelmServer::Options& options) {
    const auto store = openContentStore(options.database, ContentStore::Open::ExistingOnly);
    std::cout << jsonText(store->sessions(), 2) << "\n";
    return 0;
}

// The files a start would make that are not there yet: a start that fails (a port in use, a bad seed) takes
// them away again, so a typo leaves no database or certificate folder behind.
std::vector<std::filesystem::path> notYetMade(const PelmServer::Options& options) {
    std::vector<std::filesystem::path> paths;
    const bool sqliteFile = options.database != ":memory:" && !options.database.starts_with("postgres");
    if (sqliteFile) {
        for (const char* suffix : {"", "-wal", "-shm", "-journal"})
            paths.emplace_back(options.database + suffix);
    }
    if (options.certificateFolder) paths.push_back(*options.certificateFolder);
    std::error_code ignored;
    std::erase_if(paths, [&](const auto& path) { return std::filesystem::exists(path, ignored); });
    return paths;
}

int serve(const PelmServer::Options& options, const std::optional<JSON>& seed, const ServeStyle& style) {
    // Before the server's threads start, so that the signals come to the watcher alone. Until the server
    // listens there is nothing to finish: a stop then ends the process at once, even while a database keeps
    // it waiting.
    auto& stop = cli::StopSignals::watch();
    // Kept for the process's life: the watcher may read it at any moment, also after a failed start.
    static std::string stoppedWhileStarting;
    stoppedWhileStarting = style.program + ": stopped while starting; nothing was served";
    stop.exitAtOnce(stoppedWhileStarting.c_str());
    const auto fresh = notYetMade(options);
    std::optional<PelmServer> started;
    try {
        started.emplace(options);
        if (seed) started->store().seed(*seed);
        started->start();
    } catch (...) {
        started.reset();
        std::error_code ignored;
        for (const auto& path : fresh) std::filesystem::remove_all(path, ignored);
        throw;
    }
    auto& server = *started;
    stop.stopExitingAtOnce();
    std::printf("pelm-server listening on https://%s:%d (%s)\n", options.bindAddress.c_str(), server.port(),
                server.store().description().c_str());
    if (seed && style.demoData) std::printf("serving the demo data: app token demo-token\n");
    if (const auto ca = server.caFile()) {
        std::printf(
            "%s; clients trust it with --ca %s\n",
            server.madeAuthority() ? "made a throwaway certificate" : "kept its throwaway certificate",
            ca->c_str());
        if (const auto hint = lanNameHint(options.bindAddress, options.names))
            std::printf("%s\n", hint->c_str());
    }
    std::printf("Ctrl-C stops it.\n");
    std::fflush(stdout);
    stop.wait();
    // Requests waiting on the database are answered 503, idle connections close at once, requests in flight
    // have a second to be answered. A store call that a database keeps waiting is not waited for beyond that:
    // its request was answered, and an upload it may still store is stored once when the phone sends it
    // again.
    if (!server.stopWithin(kStoreCallsAtStop)) {
        std::fprintf(stderr, "%s: stopped without waiting for the database any longer\n",
                     style.program.c_str());
        std::fflush(nullptr);
        std::_Exit(0);
    }
    return 0;
}

}  // namespace

const std::vector<cli::Option>& serverOptions() {
    static const std::vector<cli::Option> options = {
        {"db", "FILE|URI",
         "the SQLite database (default pelm-server.db), or a PostgreSQL one, "
         "postgresql://USER@HOST:PORT/NAME, "
         "which several servers may share; postgresql:// alone reads PGHOST, PGSERVICE and the rest"},
        {"seed", "FILE", "apps and contents to serve (JSON: \"apps\" and \"contents\")"},
        {"port", "N", "the port, 1 to 65535"},
        {"bind", "ADDR", "the address to listen on (default 127.0.0.1; 0.0.0.0 for the LAN)"},
        {"name", "NAMES",
         "host names and IP addresses, comma-separated, that the throwaway certificate names besides "
         "localhost, so devices on the LAN can trust it"},
        {"threads", "N",
         "event-loop threads, each serving any number of connections (default: one per core)"},
        {"max-connections", "N",
         "connections open at once (default 10000); at the limit a new one takes the slot of the oldest that "
         "has sent no request yet or waits between requests, and is closed when every one is busy"},
        {"max-connections-per-address", "N",
         "connections open at once from one client address, by the same rule (default 1000)"},
        {"cert", "FILE",
         "the server's certificate, with --key; otherwise a throwaway authority in "
         "./pelm-server-certificate/ "
         "signs one, kept across restarts"},
        {"key", "FILE", "the certificate's private key"},
        {"access-log", "FILE",
         "append one line per request to FILE (time, client address, method, path without the query, "
         "status, bytes, seconds); off by default"},
        {"check", "",
         "read the options, the seed, the database and the certificate, say what a start would serve, and "
         "exit: 0 when it would start, 1 when not (for a unit's ExecStartPre=)"},
    };
    return options;
}

int serverMain(const cli::Arguments& args, const std::vector<std::string>& words, const ServeStyle& style) {
    // An unknown option first: a mistyped one at the end is no option lacking its value.
    if (const auto unknown = args.firstUnknown(serverOptions());
        unknown && *unknown != "--help" && *unknown != "--version") {
        return say(style, "unknown option " + *unknown + " (--help lists them)", 2);
    }
    if (args.error()) return say(style, *args.error(), 2);
    const bool sessions = words.size() == 1 && words[0] == "sessions";
    if (!words.empty() && !sessions)
        return say(style, "unknown command " + words[0] + " (--help lists them)", 2);
    try {
        const auto options = readOptions(args, style);
        if (sessions) return listSessions(options);
        if (args.flag("check")) return check(options, readSeed(args, style), style);
        return serve(options, readSeed(args, style), style);
    } catch (const UsageError& e) {
        return say(style, e.message, 2);
    } catch (const std::exception& e) {
        return say(style, e.what(), 1);
    }
}

}  // namespace pelm::server
