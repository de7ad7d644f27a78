// "set" and "del": declaring, changing and removing flows. Called on the main thread.
#pragma once

#include <memory>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Declares the label or changes the attributes named. False, after logging, where one is refused;
/// nothing changes then. A resolver failure passes through as std::runtime_error.
bool setLabelAttrs(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

/// Removes the label. Attributes besides it must be valid and have no effect.
bool deleteLabel(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
