// One command to the forwarder, before it is formatted. Made by commands/command_lines and
// commands/configuration_changes, sent by child/forwarder_session.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vesk::controller {

struct Command {
    std::string word;
    std::vector<std::pair<std::string, std::string>> attributes;  ///< in the order of the line
    std::string subject;      ///< what it is about, in the words of the configuration file
    std::uint32_t label = 0;  ///< of the flow that it is about, or 0
};

/// The line as the forwarder reads it, without the newline. It may contain keys, so it is for the
/// forwarder only.
std::string toLine(const Command& command);

/// What the command is about, with the label of a flow: "flow alice (label 0x10001/65537)".
std::string describe(const Command& command);

/// What the commands are about, each subject once: "flow a, flow b, the log level". A long list
/// ends with the number of further subjects.
std::string listSubjects(const std::vector<Command>& commands);

/// The text with the value of each key attribute replaced by "<key of N bytes>". It may be any text
/// that contains commands, such as a log line in which the forwarder repeats one.
std::string maskKeys(std::string_view text);

}  // namespace vesk::controller
