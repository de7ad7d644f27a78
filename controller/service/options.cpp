#include "service/options.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>

#include "config/key_mask.h"

namespace vesk::controller {

namespace {

/// The words of the command line that `Options` does not hold as they are.
struct Words {
    std::string file;
    std::string newKeyFile;
    const CLI::Option* newKey = nullptr;
};

void declareOptions(CLI::App& app, Options& options, Words& words) {
    // Not marked as required, so that a wrong option is reported first.
    app.add_option("FILE", words.file, "configuration file, in TOML, or a folder of such files");
    app.add_flag("--check", options.check,
                 "check the file, print the commands that would be sent, and exit");
    app.add_flag("--print-nft", options.printRules,
                 "print the rules of the packet filter for several instances, and exit");
    app.add_flag("--allow-readable-keys", options.allowReadableKeys,
                 "accept files with keys that are readable by others");
    app.add_option("--program", options.program, "path of the forwarder");
    words.newKey =
        app.add_option("--new-key", words.newKeyFile,
                       "print a new random key, or write it to a new file with mode 600, and exit")
            ->expected(0, 1)
            ->option_text("[FILE]");
    app.set_version_flag("--version", "vesk-controller " VESK_VERSION);
}

/// Throws a CLI::ParseError for a combination that makes no sense.
void checkCombination(const Options& options, const Words& words) {
    if (options.newKey && !words.file.empty()) {
        throw CLI::ValidationError("--new-key cannot be used with a configuration file");
    }
    if (options.printRules && (options.check || options.newKey)) {
        throw CLI::ValidationError("--print-nft cannot be used with --check or --new-key");
    }
    if (options.program && options.program->empty()) {
        throw CLI::ValidationError("--program", "must be a path");
    }
    if (!options.newKey && words.file.empty()) {
        throw CLI::RequiredError("FILE");
    }
}

}  // namespace

std::variant<Options, int> parseOptions(int argumentCount, char** arguments) {
    CLI::App app(
        "Runs the UDP forwarder vesk with the flows of a configuration file, restarts it if it "
        "ends, and publishes metrics. SIGHUP reloads the file; SIGTERM and SIGINT drain and "
        "exit.",
        "vesk-controller");
    Options options;
    Words words;
    declareOptions(app, options, words);
    try {
        app.parse(argumentCount, arguments);
        options.newKey = words.newKey->count() > 0;
        checkCombination(options, words);
    } catch (const CLI::ParseError& error) {
        // The message repeats arguments, and one of them may be a key that was entered as a path.
        std::ostringstream complaint;
        const int status = app.exit(error, std::cout, complaint);
        std::cerr << maskKeyDigits(complaint.str());
        return status == 0 ? exit_status::success : exit_status::badUsage;
    }
    options.file = words.file;
    options.newKeyFile = words.newKeyFile;
    return options;
}

}  // namespace vesk::controller
