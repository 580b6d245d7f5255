#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <pelm/version.hpp>

#include "cli.hpp"
#include "pelm_server/server_main.hpp"

namespace {

using pelm::cli::Option;

struct Command {
    const char* name;
    const char* synopsis;
    const char* summary;
    std::vector<Option> options;
    int (*run)(const pelm::cli::Arguments&);
};

const Option kApp{"app", "NAME", "whose settings to use (default: pelm)"};
const Option kConfigDir{"config-dir", "DIR", "where the settings file lives (default: ~/.config/pelm)"};
const Option kCa{
    "ca", "FILE",
    "also trust this certificate authority (pelm serve prints it); setup remembers it for the app"};
const Option kHost{"host", "H", "the content server, as host or host:port"};
const Option kToken{"token", "T", "the app token"};
const Option kSpeed{"speed", "X", "time runs X times faster than real (default: as fast as it can)"};
const Option kNearby{"nearby", "WHICH", "nearby devices shown: all, changes (default) or none"};
const Option kJson{"json", "", "show the stored visit as the server's JSON record, not as a table"};
const Option kReport{"report", "FILE", "write the visit as an HTML report"};
const Option kEvents{"events", "FILE", "also write every event as JSON lines"};
const Option kShowToken{"show-token", "", "print the app token whole instead of masked"};

// What simulate and replay both take after their own options: how the run is shown and where it goes.
std::vector<Option> runOptions(std::vector<Option> own) {
    own.insert(own.end(), {kSpeed, kReport, kEvents, kNearby, kJson, kHost, kToken, kCa, kApp, kConfigDir});
    return own;
}

const std::vector<Command>& commands() {
    static const std::vector<Command> all = {
        {"simulate", "[SCENARIO]", "walk a shopper through a simulated store",
         runOptions({{"seed", "N", "the simulation's random seed (default 1)"}}), pelm::cli::simulateCommand},
        {"replay", "FILE", "play a recording (btsnoop, pcap, pcapng, JSON trace)",
         runOptions({{"scanner", "NAME",
                      "take only this scanner's lines of a trace; all: each scanner as a phone of its own"},
                     {"scanners", "", "list the trace's scanners with what each heard, and stop"},
                     {"uuid", "UUID", "the app's proximity UUID (default: the one heard most)"}}),
         pelm::cli::replayCommand},
        {"record",
         "FILE.jsonl",
         "write what the Bluetooth adapter hears as a trace",
         {{"seconds", "N", "stop after N seconds (default: at Ctrl-C)"}, kApp, kConfigDir},
         pelm::cli::recordCommand},
        {"settings",
         "",
         "show what the library has stored for a host app",
         {kApp, kConfigDir, kShowToken},
         pelm::cli::settingsCommand},
        {"setup",
         "--token T --host H",
         "fetch and store the app configuration",
         {kToken, kHost, kCa, kShowToken, kApp, kConfigDir},
         pelm::cli::setupCommand},
        {"call",
         "status | app-config | content ID | content-by-hardware UUID MAJOR MINOR",
         "make one server call with the stored settings, print what came back",
         {kCa, kApp, kConfigDir},
         pelm::cli::callCommand},
        {"serve", "", "run pelm-server on port 8443 (demo data unless --seed)", pelm::server::serverOptions(),
         pelm::cli::serveCommand},
        {"status",
         "",
         "server reachability, location use and Bluetooth; exit 0 reachable, 3 not",
         {kHost, {"watch", "", "print each change until Ctrl-C"}, kApp, kConfigDir, kCa},
         pelm::cli::statusCommand},
    };
    return all;
}

void usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: pelm <command> [options]     pelm <command> --help shows a command's options\n\n");
    std::fprintf(out, "commands:\n");
    for (const auto& command : commands()) std::fprintf(out, "  %-10s %s\n", command.name, command.summary);
    std::fprintf(out, "\n  --version  print the library version\n  --help     show this text\n");
}

void usage(std::FILE* out, const Command& command) {
    std::fprintf(out, "usage: pelm %s %s%s[options]\n  %s\n\noptions:\n", command.name, command.synopsis,
                 *command.synopsis != '\0' ? " " : "", command.summary);
    std::fprintf(out, "%s", pelm::cli::optionLines(command.options).c_str());
    std::fprintf(out, "%s", pelm::cli::optionLines({{"help", "", "show this text"}}).c_str());
}

// What a user typed, as an error line shows it: a long text (a file pasted in place of its name, say) is cut,
// with its length.
std::string shown(const std::string& typed) {
    constexpr std::size_t kMost = 60;
    if (typed.size() <= kMost) return typed;
    return typed.substr(0, kMost) + "... (" + std::to_string(typed.size()) + " characters)";
}

int run(const Command& command, const pelm::cli::Arguments& args) {
    if (args.flag("help")) return usage(stdout, command), 0;
    std::vector<std::string> known;
    for (const auto& option : command.options) known.emplace_back(option.name);
    for (const auto& option : args.unknown(known)) {
        std::fprintf(stderr, "pelm %s: unknown option %s (pelm %s --help lists them)\n", command.name,
                     shown(option).c_str(), command.name);
        return 2;
    }
    if (args.error()) {
        std::fprintf(stderr, "pelm %s: %s\n", command.name, args.error()->c_str());
        return 2;
    }
    int result = 1;
    try {
        result = command.run(args);
    } catch (const std::exception& error) {
        // What the library refuses to start with (a CA file that holds no certificate, say) is one line.
        std::fprintf(stderr, "pelm %s: %s\n", command.name, error.what());
        return 1;
    }
    if (result != pelm::cli::kShowUsage) return result;
    // What is missing, in one line; the options are a --help away.
    std::fprintf(stderr, "pelm %s: usage: pelm %s %s (pelm %s --help shows the options)\n", command.name,
                 command.name, command.synopsis, command.name);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    const pelm::cli::Arguments args(argc, argv,
                                    {"version", "help", "watch", "show-token", "json", "scanners", "check"});
    if (args.positional().empty()) {
        if (args.flag("version")) {
            std::printf("pelm %s\n", pelm::version());
            return 0;
        }
        usage(args.flag("help") ? stdout : stderr);
        return args.flag("help") ? 0 : 2;
    }
    const auto& name = args.positional().front();
    for (const auto& command : commands()) {
        if (name == command.name) return run(command, args);
    }
    std::fprintf(stderr, "pelm: unknown command '%s'\n\n", shown(name).c_str());
    usage(stderr);
    return 2;
}
