#include <cstdio>
#include <string>

#include <pelm/sdk/pelm_constants.hpp>

#include "cli.hpp"

namespace {

std::string command_name(const pelm::cli::Arguments& args) {
    return args.positional().front();
}

void usage(std::FILE* out) {
    std::fprintf(
        out,
        "usage: pelm <command> [options]\n"
        "\n"
        "commands:\n"
        "  simulate [SCENARIO] [--seed N] [--speed X] [--report FILE] [--events FILE] [--host H --token T]\n"
        "                                             walk a shopper through a simulated store\n"
        "  replay FILE [--scanner NAME] [--uuid UUID] [--speed X] [--events FILE] [--host H --token T]\n"
        "                                             play a recording (btsnoop, pcap, pcapng, JSON trace)\n"
        "  record FILE.jsonl [--seconds N]            write what the Bluetooth adapter hears as a trace\n"
        "  settings [--app NAME] [--config-dir DIR] [--show-token]\n"
        "                                             show what the library has stored for a host app\n"
        "  setup --token T --host H [--ca FILE] [--show-token]\n"
        "                                             fetch and store the app configuration\n"
        "  call status | app-config | content ID | content-by-hardware UUID MAJOR MINOR [--ca FILE]\n"
        "                                             make one server call, print what came back\n"
        "  serve [--db FILE] [--seed FILE] [--port N] [--cert FILE --key FILE]\n"
        "                                             run pelm-server (demo data unless --seed)\n"
        "  status [--host H] [--watch]                 server reachability, location use and Bluetooth;\n"
        "                                              exit 0 reachable, 3 not (--watch: until Ctrl-C)\n"
        "  (--app NAME and --config-dir DIR choose whose settings setup and call use)\n"
        "\n"
        "  --version                                  print the library version\n"
        "  --help                                     show this text\n");
}

}  // namespace

int main(int argc, char** argv) {
    const pelm::cli::Arguments args(argc, argv, {"version", "help", "watch", "show-token"});
    if (args.flag("version")) {
        std::printf("pelm %.*s\n", static_cast<int>(pelm::PelmConstants::sdkVersion.size()),
                    pelm::PelmConstants::sdkVersion.data());
        return 0;
    }
    if (args.flag("help") || args.positional().empty()) {
        usage(args.flag("help") ? stdout : stderr);
        return args.flag("help") ? 0 : 2;
    }
    if (args.error()) {
        std::fprintf(stderr, "pelm: %s\n", args.error()->c_str());
        return 2;
    }
    const auto& command = args.positional().front();
    if (command == "settings") {
        for (const auto& option : args.unknown({"app", "config-dir", "show-token"})) {
            std::fprintf(stderr, "pelm settings: unknown option %s\n", option.c_str());
            return 2;
        }
        return pelm::cli::settingsCommand(args);
    }
    const std::vector<std::string> common = {"app", "config-dir", "ca"};
    const auto run = [&](std::vector<std::string> known, int (*command)(const pelm::cli::Arguments&)) {
        known.insert(known.end(), common.begin(), common.end());
        for (const auto& option : args.unknown(known)) {
            std::fprintf(stderr, "pelm %s: unknown option %s\n", command_name(args).c_str(), option.c_str());
            return 2;
        }
        return command(args);
    };
    if (command == "setup") return run({"token", "host", "show-token"}, pelm::cli::setupCommand);
    if (command == "call") return run({}, pelm::cli::callCommand);
    if (command == "simulate")
        return run({"host", "token", "seed", "speed", "report", "events"}, pelm::cli::simulateCommand);
    if (command == "record") return run({"seconds"}, pelm::cli::recordCommand);
    if (command == "replay")
        return run({"host", "token", "scanner", "uuid", "speed", "events"}, pelm::cli::replayCommand);
    if (command == "status") return run({"host", "watch"}, pelm::cli::statusCommand);
    if (command == "serve")
        return run({"db", "seed", "port", "bind", "cert", "key"}, pelm::cli::serveCommand);
    std::fprintf(stderr, "pelm: unknown command '%s'\n\n", command.c_str());
    usage(stderr);
    return 2;
}
