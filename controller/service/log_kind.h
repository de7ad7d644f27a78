// Groups lines of the forwarder's log by kind: the same text apart from numbers and addresses, and
// the same label if they contain one. Called by service/log_limit.
#pragma once

#include <string>
#include <string_view>

#include "child/log_line.h"

namespace vesk::controller {

struct LogKind {
    std::string name;         ///< at most a few hundred bytes, however long the line is
    bool namesLabel = false;  ///< "label 0x10001/65537", "label 65537"
};

LogKind logKindOf(LogLevel level, std::string_view text);

}  // namespace vesk::controller
