// vesk-controller: runs the forwarder with the flows of a configuration file.
#include <csignal>
#include <exception>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "base/standard_descriptors.h"
#include "commands/command_lines.h"
#include "config/configuration_reader.h"
#include "config/configuration_warnings.h"
#include "config/fragments/fragment_folder.h"
#include "config/instance_configurations.h"
#include "config/new_key.h"
#include "service/filter_right.h"
#include "service/host_limits.h"
#include "service/log_output.h"
#include "service/options.h"
#include "service/steering_warnings.h"
#include "service/supervisor.h"
#include "steering/steering_rules.h"

namespace vesk::controller {

namespace {

/// SIGHUP during the first reading of the file would end the process. Blocked, it waits for the
/// supervisor.
void holdBackReloads() {
    sigset_t reload;
    sigemptyset(&reload);
    sigaddset(&reload, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &reload, nullptr);
}

void printCommandsOf(const Configuration& instance) {
    std::cout << "# vesk";
    for (const std::string& argument : programArguments(instance.forwarder)) {
        std::cout << " " << argument;
    }
    std::cout << "\n";
    for (const Command& command : allCommands(instance)) {
        if (command.label != 0) {
            std::cout << "# " << describe(command) << "\n";
        }
        std::cout << maskKeys(toLine(command)) << "\n";
    }
}

/// These commands depend on answers of the name servers.
void printPeerNames(const Configuration& configuration) {
    if (!configuration.lateral) {
        return;
    }
    for (const auto& [index, name] : configuration.lateral->peerNames) {
        std::cout << "# add_lateral_peer idx " << index << " addr (the address of " << name
                  << ", once the name is resolved)\n";
    }
}

/// False if they could not be written.
bool printCommands(const Configuration& configuration) {
    const std::vector<Configuration> instances =
        instanceConfigurations(configuration, firstPorts(configuration));
    for (std::size_t instance = 0; instance < instances.size(); ++instance) {
        if (instances.size() > 1) {
            std::cout << "# instance " << instance << "\n";
        }
        printCommandsOf(instances[instance]);
    }
    printPeerNames(configuration);
    return static_cast<bool>(std::cout.flush());
}

/// False if they could not be written.
bool printRules(const Configuration& configuration) {
    if (isSteered(configuration)) {
        std::cout << steeringRules(steeringPlan(configuration, firstPorts(configuration)));
    } else {
        std::cout << "# none: the forwarder itself listens on the public port\n";
    }
    return static_cast<bool>(std::cout.flush());
}

void warn(const std::vector<std::string>& warnings, LogOutput& log) {
    for (const std::string& warning : warnings) {
        log.say(LogLevel::warn, warning);
    }
}

/// For --check and --print-nft; the exit status.
int print(const Options& options, const Configuration& configuration, LogOutput& log) {
    if (options.check) {
        warn(configurationWarnings(configuration), log);
        warn(steeringWarnings(configuration), log);
    }
    if (options.check ? printCommands(configuration) : printRules(configuration)) {
        return exit_status::success;
    }
    log.say(LogLevel::error, options.check ? "the commands cannot be written to standard output"
                                           : "the rules cannot be written to standard output");
    return exit_status::unusableFile;
}

int makeKey(const std::filesystem::path& file) {
    std::string problem;
    if (!file.empty()) {
        problem = writeNewKey(file);
    } else if (!(std::cout << newKeyLine() << std::flush)) {
        problem = "the key cannot be written to standard output";
    }
    if (problem.empty()) {
        return exit_status::success;
    }
    std::cerr << "vesk-controller: " << problem << "\n";
    return exit_status::unusableFile;
}

std::optional<Configuration> readFile(const Options& options, ReadingRules rules, LogOutput& log) {
    ConfigurationReading reading = readConfiguration(options.file, rules);
    for (const Problem& problem : reading.problems) {
        log.say(LogLevel::error, describe(problem, options.file.string()));
    }
    return std::move(reading.configuration);
}

/// None if it is not usable. If nothing is started, that is so if any fragment has an error.
std::optional<Configuration> read(FragmentFolder& fragments, const Options& options,
                                  LogOutput& log) {
    FolderReading reading = fragments.read(FilesToRead::all);
    const bool starts = !options.check && !options.printRules && reading.configuration;
    for (const FragmentErrors& errors : reading.errors) {
        for (const std::string& line : errors.lines) {
            log.say(LogLevel::error, line);
        }
        if (starts) {
            log.say(LogLevel::error, errors.consequence);
        }
    }
    return starts || reading.complete ? std::move(reading.configuration) : std::nullopt;
}

int run(const Options& options, LogOutput& log) {
    const ReadingRules rules{options.allowReadableKeys};
    std::optional<FragmentFolder> fragments;
    if (std::error_code ignored; std::filesystem::is_directory(options.file, ignored)) {
        fragments.emplace(options.file, rules);
    }
    std::optional<Configuration> configuration =
        fragments ? read(*fragments, options, log) : readFile(options, rules, log);
    if (!configuration) {
        return exit_status::unusableFile;
    }
    if (options.printRules) {
        return print(options, *configuration, log);
    }
    raiseDescriptorLimit();
    warn(limitWarnings(*configuration), log);
    if (options.check) {
        return print(options, *configuration, log);
    }
    Supervisor supervisor(options, std::move(*configuration), log);
    if (fragments) {
        supervisor.watchFragments(std::move(*fragments));
    }
    return supervisor.run();
}

int runGuarded(int argumentCount, char** arguments) {
    std::variant<Options, int> options = parseOptions(argumentCount, arguments);
    if (const int* const status = std::get_if<int>(&options)) {
        return *status;
    }
    if (std::get<Options>(options).newKey) {
        return makeKey(std::get<Options>(options).newKeyFile);
    }
    LogOutput log(STDERR_FILENO, logFormOf(STDERR_FILENO));
    int status = exit_status::forwarderFailed;
    try {
        status = run(std::get<Options>(options), log);
    } catch (const std::exception& error) {
        log.say(LogLevel::error, error.what());
    }
    log.finish();
    return status;
}

}  // namespace

}  // namespace vesk::controller

int main(int argumentCount, char** arguments) {
    vesk::controller::holdBackReloads();
    vesk::controller::keepFilterRightFromChildren();
    vesk::occupyStandardDescriptors(vesk::ClosedStream::isEmpty);
    // The forwarder's end is reported by SIGCHLD, and a closed log must not end the controller.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return vesk::controller::runGuarded(argumentCount, arguments);
    } catch (...) {
        return vesk::controller::exit_status::forwarderFailed;
    }
}
