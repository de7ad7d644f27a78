// Which lines of the forwarder's log are of one kind: the same text but for numbers and addresses,
// and for the same label where they name one. Called by service/log_limit.
#pragma once

#include <string>
#include <string_view>

#include "child/log_line.h"

namespace vesk::controller {

struct LogKind {
    std::string name;         ///< at most a few hundred bytes, whatever the line's length
    bool namesLabel = false;  ///< "label 0x10001/65537", "label 65537"
};

LogKind logKindOf(LogLevel level, std::string_view text);

}  // namespace vesk::controller
