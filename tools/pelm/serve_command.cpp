#include <csignal>
#include <cstdio>
#include <thread>

#include <pelm/model/json_text.hpp>
#include <pelm/platform/linux/bounded_file.hpp>

#include "cli.hpp"
#include "pelm_server/demo_seed.hpp"
#include "pelm_server/pelm_server.hpp"
#include "pelm_server/stop_signals.hpp"
#include "pelm_server/text_numbers.hpp"

namespace pelm::cli {
namespace {

std::optional<JSON> readSeed(const std::optional<std::string>& path, std::string& error) {
    if (!path) return parseJSONText(server::demoSeedText());
    auto read = platform::readJSONFile(*path);
    error = std::move(read.error);
    return std::move(read.json);
}

}  // namespace

int serveCommand(const Arguments& args) {
    server::PelmServer::Options options;
    options.database = args.option("db").value_or("pelm-server.db");
    const auto port = server::wholeNumber(args.option("port").value_or("8443"), 1, 65535);
    if (!port) {
        std::fprintf(stderr, "pelm serve: --port takes a port number from 1 to 65535\n");
        return 2;
    }
    options.port = static_cast<int>(*port);
    options.bindAddress = args.option("bind").value_or("127.0.0.1");
    if (const auto names = args.option("name")) {
        if (const auto problem = server::readServerNames(*names, options.names)) {
            std::fprintf(stderr, "pelm serve: %s\n", problem->c_str());
            return 2;
        }
    }
    if (auto cert = args.option("cert")) options.certFile = *cert;
    if (auto key = args.option("key")) options.keyFile = *key;
    if (options.certFile.has_value() != options.keyFile.has_value()) {
        std::fprintf(stderr, "pelm serve: --cert and --key go together\n");
        return 2;
    }
    options.certificateFolder = std::filesystem::absolute("pelm-server-certificate");
    std::string error;
    const auto seed = readSeed(args.option("seed"), error);
    if (!seed) {
        std::fprintf(stderr, "pelm serve: the seed %s\n", error.c_str());
        return 1;
    }
    try {
        server::blockStopSignals();  // before the server's threads start, so they inherit it
        server::PelmServer server(options);
        server.store().seed(*seed);
        server.start();
        std::printf("pelm-server on https://localhost:%d, database %s, %s\n", server.port(),
                    options.database.c_str(),
                    args.option("seed") ? ("seeded from " + *args.option("seed")).c_str()
                                        : "demo data (token demo-token)");
        if (auto ca = server.caFile()) {
            std::printf("throwaway certificate: trust it with --ca %s\n", ca->c_str());
            if (const auto hint = server::lanNameHint(options.bindAddress, options.names))
                std::printf("%s\n", hint->c_str());
        }
        std::printf("Ctrl-C stops it.\n");
        std::fflush(stdout);
        server::waitForStopSignal();
        server.stop();
        std::printf("stopped; %zu upload(s) stored\n", server.store().sessions().size());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pelm serve: %s\n", e.what());
        return 1;
    }
}

}  // namespace pelm::cli
