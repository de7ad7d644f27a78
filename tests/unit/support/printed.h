// What the code under test prints, and the log level it prints at.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace vesk {

/// Everything that reaches standard output while `action` runs, threads included.
std::string printedBy(const std::function<void()>& action);

/// Makes a level the current one for as long as it lives; afterwards the default is back.
class AtLogLevel {
 public:
    explicit AtLogLevel(std::string_view name);
    ~AtLogLevel();
    AtLogLevel(const AtLogLevel&) = delete;
    AtLogLevel& operator=(const AtLogLevel&) = delete;
};

}  // namespace vesk
