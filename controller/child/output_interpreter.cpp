#include "child/output_interpreter.h"

#include <utility>

namespace vesk::controller {

namespace {

/// With each report's question the forwarder repeats it, at its debug level.
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
    // An empty line ends some messages and says nothing.
    if (line.empty() || isEchoOfQuestion(classified)) {
        return std::monostate();
    }
    classified.text = maskKeys(classified.text);
    return classified;
}

}  // namespace vesk::controller
