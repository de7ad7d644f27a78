// Interprets each line of the forwarder's output: the end of a command, a part of a report, or text
// for the log. One for each child. Called by child/forwarder_session.
#pragma once

#include <string_view>
#include <variant>

#include "child/fence_ledger.h"
#include "child/log_line.h"
#include "metrics/report_parser.h"

namespace vesk::controller {

/// A line yields at most one of these: text for the log, with keys masked; the outcome of a
/// command; or a report that is now complete.
using OutputEvent = std::variant<std::monostate, LogLine, Outcome, Report>;

class OutputInterpreter {
 public:
    explicit OutputInterpreter(FenceLedger& ledger) : ledger_(ledger) {}

    OutputEvent take(std::string_view line);

 private:
    FenceLedger& ledger_;
    ReportParser reports_;
};

}  // namespace vesk::controller
