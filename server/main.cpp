// pelm-server: the reference content server.
//   pelm-server [--db FILE|URI] [--seed FILE] [--port N] [--bind ADDR] [--threads N] [--max-connections N]
//               [--cert FILE --key FILE]
//   pelm-server sessions --db FILE|URI      prints the stored uploads as JSON
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/linux/bounded_file.hpp>

#include <pelm/version.hpp>

#include "pelm_server/pelm_server.hpp"
#include "pelm_server/stop_signals.hpp"
#include "pelm_server/text_numbers.hpp"

namespace {

void usage(std::FILE* out = stderr) {
    std::fprintf(
        out,
        "usage: pelm-server [--db FILE|URI] [--seed FILE] [--port N] [--bind ADDR] [--threads N]\n"
        "                   [--max-connections N] [--name NAMES] [--cert FILE --key FILE]\n"
        "       pelm-server sessions --db FILE|URI\n"
        "       pelm-server --version | --help\n"
        "\n"
        "  --db FILE      the SQLite database (default pelm-server.db)\n"
        "  --db URI       a PostgreSQL database, postgresql://USER@HOST:PORT/NAME, which several\n"
        "                 servers may share; postgresql:// alone reads PGHOST, PGSERVICE and the rest\n"
        "  --seed FILE    apps and contents to serve (JSON: \"apps\" and \"contents\")\n"
        "  --port N       the port, 1 to 65535 (default: a free one, printed at start)\n"
        "  --bind ADDR    the address to listen on (default 127.0.0.1; 0.0.0.0 for the LAN)\n"
        "  --name NAMES   host names and IP addresses, comma-separated, that the throwaway\n"
        "                 certificate names besides localhost, so devices on the LAN can trust it\n"
        "  --threads N    event-loop threads, each serving any number of connections (default: one\n"
        "                 per core)\n"
        "  --max-connections N\n"
        "                 connections open at once; more are closed as they come (default 10000)\n"
        "  --cert FILE    the server's certificate, with --key; otherwise a throwaway authority in\n"
        "                 ./pelm-server-certificate/ signs one, kept across restarts\n"
        "  sessions       print the stored uploads as JSON\n");
}

int fail(const std::string& message) {
    std::fprintf(stderr, "pelm-server: %s\n", message.c_str());
    return 1;
}

// A mistake on the command line, told apart from a failure by its exit code.
int usageError(const std::string& message) {
    std::fprintf(stderr, "pelm-server: %s\n", message.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    pelm::server::blockStopSignals();
    pelm::server::PelmServer::Options options;
    options.database = "pelm-server.db";
    std::optional<std::string> seed;
    bool listSessions = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw std::invalid_argument(word + " needs a value");
            return argv[++i];
        };
        try {
            if (word == "sessions")
                listSessions = true;
            else if (word == "--db")
                options.database = value();
            else if (word == "--seed")
                seed = value();
            else if (word == "--port") {
                const auto port = pelm::server::wholeNumber(value(), 1, 65535);
                if (!port) return usageError("--port takes a port number from 1 to 65535");
                options.port = static_cast<int>(*port);
            } else if (word == "--threads") {
                const auto threads = pelm::server::wholeNumber(value(), 1, 256);
                if (!threads) return usageError("--threads takes a number from 1 to 256");
                options.threads = static_cast<int>(*threads);
            } else if (word == "--max-connections") {
                const auto most = pelm::server::wholeNumber(value(), 1, 1000000);
                if (!most) return usageError("--max-connections takes a number from 1 to 1000000");
                options.maxConnections = static_cast<std::size_t>(*most);
            } else if (word == "--bind")
                options.bindAddress = value();
            else if (word == "--name") {
                if (const auto problem = pelm::server::readServerNames(value(), options.names))
                    return usageError(*problem);
            } else if (word == "--cert")
                options.certFile = value();
            else if (word == "--key")
                options.keyFile = value();
            else if (word == "--help")
                return usage(stdout), 0;
            else if (word == "--version")
                return std::printf("pelm-server %s\n", pelm::version()), 0;
            else
                return std::fprintf(stderr, "pelm-server: unknown option %s (--help lists them)\n",
                                    word.c_str()),
                       2;
        } catch (const std::exception& e) {
            return usageError(e.what());
        }
    }
    if (options.certFile.has_value() != options.keyFile.has_value())
        return usageError("--cert and --key go together");
    if (options.certFile && !options.names.empty())
        return usageError("--name goes into the throwaway certificate; --cert brings its own names");

    try {
        if (listSessions) {
            const auto store = pelm::server::openContentStore(options.database,
                                                              pelm::server::ContentStore::Open::ExistingOnly);
            std::cout << pelm::jsonText(store->sessions(), 2) << "\n";
            return 0;
        }
        if (!options.certFile)
            options.certificateFolder = std::filesystem::absolute("pelm-server-certificate");
        pelm::server::PelmServer server(options);
        if (seed) {
            const auto read = pelm::platform::readJSONFile(*seed);
            if (!read.json) return fail(read.error);
            server.store().seed(*read.json);
        }
        server.start();
        std::printf("pelm-server listening on https://%s:%d (%s)\n", options.bindAddress.c_str(),
                    server.port(), server.store().description().c_str());
        if (auto ca = server.caFile()) {
            std::printf("made a throwaway certificate; clients trust it with --ca %s\n", ca->c_str());
            if (const auto hint = pelm::server::lanNameHint(options.bindAddress, options.names))
                std::printf("%s\n", hint->c_str());
        }
        std::fflush(stdout);
        pelm::server::waitForStopSignal();
        // Idle connections close at once; requests in flight have a second to be answered.
        server.stop();
        return 0;
    } catch (const std::exception& e) {
        return fail(e.what());
    }
}
