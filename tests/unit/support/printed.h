// Captures what the code under test prints and sets the log level.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace vesk {

/// Everything that any thread writes to standard output while `action` runs.
std::string printedBy(const std::function<void()>& action);

/// Sets the log level while it exists and restores the default level afterwards.
class AtLogLevel {
 public:
    explicit AtLogLevel(std::string_view name);
    ~AtLogLevel();
    AtLogLevel(const AtLogLevel&) = delete;
    AtLogLevel& operator=(const AtLogLevel&) = delete;
};

}  // namespace vesk
