#include <cstdio>
#include <string>

#include <pelm/sdk/pelm_constants.hpp>

#include "cli.hpp"

namespace {

void usage(std::FILE* out) {
    std::fprintf(out,
                 "usage: pelm <command> [options]\n"
                 "\n"
                 "commands:\n"
                 "  settings [--app NAME] [--config-dir DIR]   show what the library has stored for a host app\n"
                 "\n"
                 "  --version                                  print the library version\n"
                 "  --help                                     show this text\n");
}

}  // namespace

int main(int argc, char** argv) {
    const pelm::cli::Arguments args(argc, argv, {"version", "help", "watch"});
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
        for (const auto& option : args.unknown({"app", "config-dir"})) {
            std::fprintf(stderr, "pelm settings: unknown option %s\n", option.c_str());
            return 2;
        }
        return pelm::cli::settingsCommand(args);
    }
    std::fprintf(stderr, "pelm: unknown command '%s'\n\n", command.c_str());
    usage(stderr);
    return 2;
}
