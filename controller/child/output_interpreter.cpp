#include "child/output_interpreter.h"

#include <utility>

namespace vesk::controller {

namespace {

/// At debug level the forwarder repeats the command that asks for a report.
bool isEchoOfQuestion(const LogLine& line) {
    return line.level == LogLevel::debug && line.text == "Got message: stats";
}

}  // namespace

OutputEvent OutputInterpreter::take(std::string_view line) {
    LogLine classified = classify(line);
    FenceReading fence = ledger_.read(classified);
    if (fence.outcome) {
        return std::move(*fence.outcome);
    }
    if (fence.ours) {
        return std::monostate();
    }
    if (reports_.feed(line)) {
        if (std::optional<Report> report = reports_.takeReport()) {
            return std::move(*report);
        }
        return std::monostate();
    }
    // Some messages end with an empty line, which is not logged.
    if (line.empty() || isEchoOfQuestion(classified)) {
        return std::monostate();
    }
    classified.text = maskKeys(classified.text);
    return classified;
}

}  // namespace vesk::controller
