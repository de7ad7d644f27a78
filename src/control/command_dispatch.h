// From a line to its handler. Called on the main thread; exceptions of handlers pass through.
#pragma once

#include <map>
#include <memory>
#include <string_view>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Carries a command out with the words after it. What came of it shows in the log; the result is
/// for whoever calls a handler directly.
using CommandHandler = bool (*)(TokenQueue tokens,
                                const std::shared_ptr<ForwarderContext>& context);

/// The eight commands by their words.
const std::map<std::string_view, CommandHandler>& commandTable();

/// Carries one line out. Blank lines do nothing, unknown words are reported.
void dispatchCommand(std::string_view line, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
