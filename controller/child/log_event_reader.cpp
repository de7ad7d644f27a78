#include "child/log_event_reader.h"

namespace vesk::controller {

std::optional<LogEvent> eventOf(const LogLine& line) {
    const std::string_view text = line.text;
    if (line.level == LogLevel::none && text == "downstreamPacketReceivedFailed HMAC Check!") {
        return LogEvent::hmacFailure;
    }
    if (line.level == LogLevel::info &&
        (text.starts_with("Created upstream endpoint: label ") ||
         text.starts_with("Created multiplexed upstream endpoint: "))) {
        return LogEvent::endpointCreated;
    }
    if (line.level == LogLevel::error && text.ends_with(" Endpoint Deleted") &&
        text.find(" network error on upstream endpoint of label ") != std::string_view::npos) {
        return LogEvent::endpointDeletedByError;
    }
    return std::nullopt;
}

}  // namespace vesk::controller
