// The report of all counters, written by the "stats" command on the main thread. No counter is
// reset. Traffic continues meanwhile, so the figures of one report need not agree.
#pragma once

#include <memory>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// The handler of "stats"; words after it are ignored. Always true.
bool reportStatistics(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
