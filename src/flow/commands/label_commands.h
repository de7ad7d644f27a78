// The commands "set" and "del", which declare, change and remove flows. Called on the main thread.
#pragma once

#include <memory>

#include "base/command_line.h"

namespace vesk {

struct ForwarderContext;

/// Declares the label, or changes the named attributes. False, after logging, if an attribute is
/// refused; then nothing is changed. If the resolver fails, std::runtime_error is thrown.
bool setLabelAttrs(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

/// Removes the label. Other attributes must be valid, but have no effect. False, after logging, if
/// the command is refused.
bool deleteLabel(TokenQueue tokens, const std::shared_ptr<ForwarderContext>& context);

}  // namespace vesk
