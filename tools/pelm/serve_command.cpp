#include "cli.hpp"
#include "pelm_server/server_main.hpp"

namespace pelm::cli {

// pelm-server itself, on port 8443 and with the demo data unless told otherwise.
int serveCommand(const Arguments& args) {
    const std::vector<std::string> words(args.positional().begin() + 1, args.positional().end());
    return server::serverMain(args, words, {"pelm serve", 8443, true});
}

}  // namespace pelm::cli
