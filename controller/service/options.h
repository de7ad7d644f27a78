// Parses the command line of vesk-controller. Called by main.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <variant>

namespace vesk::controller {

namespace exit_status {
inline constexpr int success = 0;
inline constexpr int unusableFile = 1;
inline constexpr int badUsage = 2;
inline constexpr int forwarderFailed = 3;
inline constexpr int metricsFailed = 4;
}  // namespace exit_status

struct Options {
    std::filesystem::path file;
    bool check = false;
    bool printRules = false;  ///< print the rules of the packet filter and exit
    bool allowReadableKeys = false;
    std::optional<std::string> program;

    bool newKey = false;               ///< print or write a key and exit; `file` is empty
    std::filesystem::path newKeyFile;  ///< empty: print it
};

/// The options, or the exit status if the process must end: after a wrong usage, --help or
/// --version.
std::variant<Options, int> parseOptions(int argumentCount, char** arguments);

}  // namespace vesk::controller
