// The log of one instance: what the instance and its forwarder say, with the instance's name before
// it if there are several. Used by service/instance.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "child/log_line.h"
#include "service/log_output.h"

namespace vesk::controller {

class InstanceLog {
 public:
    /// `prefix` precedes each line, such as "instance 2: "; it may be empty.
    InstanceLog(LogOutput& log, std::string prefix) : log_(log), prefix_(std::move(prefix)) {}

    const std::string& prefix() const { return prefix_; }

    /// Writes a message of the controller.
    void say(LogLevel level, std::string_view text) const {
        log_.say(level, prefix_ + std::string(text));
    }

    /// Writes a line of the forwarder, unless there were too many of its kind.
    void passOn(const LogLine& line) const { log_.passOn({line.level, prefix_ + line.text}); }

 private:
    LogOutput& log_;
    std::string prefix_;
};

}  // namespace vesk::controller
