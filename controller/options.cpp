#include "options.h"

#include <CLI/CLI.hpp>

namespace vesk::controller {

std::variant<Options, int> parseOptions(int argumentCount, char** arguments) {
    CLI::App app(
        "Runs the UDP forwarder vesk with the flows of a configuration file: keeps it running, "
        "changes it while it runs, and publishes metrics. SIGHUP reads the file again, SIGTERM and "
        "SIGINT drain and end.",
        "vesk-controller");
    Options options;
    std::string file;
    app.add_option("FILE", file, "configuration file, in TOML")->required();
    app.add_flag("--check", options.check,
                 "validate the file, print the commands that would be sent, and end");
    app.add_flag("--allow-readable-keys", options.allowReadableKeys,
                 "accept files with keys in them that others may read");
    app.add_option("--program", options.program, "the forwarder to run");
    app.set_version_flag("--version", "vesk-controller " VESK_VERSION);
    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? exit_status::success : exit_status::badUsage;
    }
    options.file = file;
    return options;
}

}  // namespace vesk::controller
