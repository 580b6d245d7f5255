#include <csignal>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include <pelm/model/json_text.hpp>

#include "cli.hpp"
#include "pelm_server/demo_seed.hpp"
#include "pelm_server/pelm_server.hpp"

namespace pelm::cli {
namespace {

volatile std::sig_atomic_t interrupted = 0;

std::optional<JSON> readSeed(const std::optional<std::string>& path) {
    if (!path) return parseJSONText(server::demoSeedText());
    std::ifstream in(*path);
    if (!in) return std::nullopt;
    std::stringstream text;
    text << in.rdbuf();
    return parseJSONText(text.str());
}

}  // namespace

int serveCommand(const Arguments& args) {
    server::PelmServer::Options options;
    options.database = args.option("db").value_or("pelm-server.db");
    options.port = std::stoi(args.option("port").value_or("8443"));
    options.bindAddress = args.option("bind").value_or("127.0.0.1");
    if (auto cert = args.option("cert")) options.certFile = *cert;
    if (auto key = args.option("key")) options.keyFile = *key;
    if (options.certFile.has_value() != options.keyFile.has_value()) {
        std::fprintf(stderr, "pelm serve: --cert and --key go together\n");
        return 2;
    }
    options.certificateFolder = std::filesystem::absolute("pelm-server-certificate");
    const auto seed = readSeed(args.option("seed"));
    if (!seed) {
        std::fprintf(stderr, "pelm serve: cannot read the seed %s as JSON\n", args.option("seed")->c_str());
        return 1;
    }
    try {
        server::PelmServer server(options);
        server.store().seed(*seed);
        server.start();
        std::printf("pelm-server on https://localhost:%d, database %s, %s\n", server.port(),
                    options.database.c_str(),
                    args.option("seed") ? ("seeded from " + *args.option("seed")).c_str()
                                        : "demo data (token demo-token)");
        if (auto ca = server.caFile())
            std::printf("throwaway certificate: trust it with --ca %s\n", ca->c_str());
        std::printf("Ctrl-C stops it.\n");
        std::fflush(stdout);
        std::signal(SIGINT, [](int) { interrupted = 1; });
        std::signal(SIGTERM, [](int) { interrupted = 1; });
        while (!interrupted) std::this_thread::sleep_for(std::chrono::milliseconds(100));
        server.stop();
        std::printf("stopped; %zu upload(s) stored\n", server.store().sessions().size());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "pelm serve: %s\n", e.what());
        return 1;
    }
}

}  // namespace pelm::cli
