// pelm-server: the reference content server.
//   pelm-server [options]                    serves until SIGINT or SIGTERM
//   pelm-server sessions --db FILE|URI       prints the stored uploads as JSON
#include <cstdio>

#include <pelm/version.hpp>

#include "pelm_cli/arguments.hpp"
#include "pelm_server/server_main.hpp"

int main(int argc, char** argv) {
    const pelm::cli::Arguments args(argc, argv, {"help", "version", "check"});
    if (args.flag("help")) {
        std::printf(
            "usage: pelm-server [options]\n       pelm-server sessions --db FILE|URI\n"
            "       pelm-server --version | --help\n\n  sessions           print the stored uploads as "
            "JSON\n%s",
            pelm::cli::optionLines(pelm::server::serverOptions()).c_str());
        return 0;
    }
    if (args.flag("version")) return std::printf("pelm-server %s\n", pelm::version()), 0;
    return pelm::server::serverMain(args, args.positional(), {});
}
