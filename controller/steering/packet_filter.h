// Runs commands of the kernel's packet filter. Called by service/supervisor for each change of the
// steering, and by main for --check, on the main thread.
#pragma once

#include <string>

namespace vesk::controller {

struct FilterAnswer {
    std::string output;
    std::string error;      ///< one line; empty if all commands were carried out
    bool permitted = true;  ///< false if the process lacks CAP_NET_ADMIN
};

/// Runs the commands as one transaction: all of them, or none.
FilterAnswer runFilterCommands(const std::string& commands);

/// Lets the kernel check the commands, and changes nothing.
FilterAnswer checkFilterCommands(const std::string& commands);

}  // namespace vesk::controller
