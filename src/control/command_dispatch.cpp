#include "control/command_dispatch.h"

#include <utility>

#include "control/forwarder_commands.h"
#include "control/lateral_commands.h"
#include "flow/commands/label_commands.h"
#include "log/log.h"
#include "stats/stats_report.h"

namespace vesk {

namespace {

const std::map<std::string_view, CommandHandler> commands{
    {"start", startForwarder},
    {"stop", stopForwarder},
    {"log", setLogParams},
    {"set", setLabelAttrs},
    {"del", deleteLabel},
    {"stats", reportStatistics},
    {"start_lateral", startLateralStream},
    {"add_lateral_peer", addLateralPeer},
};

}  // namespace

const std::map<std::string_view, CommandHandler>& commandTable() {
    return commands;
}

void dispatchCommand(std::string_view line, const std::shared_ptr<ForwarderContext>& context) {
    logDebug("Got message: ", line);
    TokenQueue tokens = splitCommandLine(line);
    if (tokens.empty()) {
        return;
    }
    const std::string word = std::move(tokens.front());
    tokens.pop_front();
    const auto command = commands.find(word);
    if (command == commands.end()) {
        // Kept: the message itself ends in a newline, so an empty line follows.
        logError("Unrecognised command '", word, "'\n");
        return;
    }
    command->second(std::move(tokens), context);
}

}  // namespace vesk
