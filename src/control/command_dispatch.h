// Finds the handler of a line and calls it. Called by the command loop, on the main thread.
// Exceptions of handlers are not caught.
#pragma once

#include <map>
#include <memory>
#include <string_view>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Carries out a command, given the words after it. Errors are logged; the result says whether the
/// command succeeded, which dispatchCommand ignores.
using CommandHandler = bool (*)(TokenQueue tokens,
                                const std::shared_ptr<ForwarderContext>& context);

/// The eight commands, by name.
const std::map<std::string_view, CommandHandler>& commandTable();

/// Carries out one line. A blank line does nothing; an unknown command is logged.
void dispatchCommand(std::string_view line, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
