#include "log/printf_log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <string_view>

#include "log/log.h"

namespace vesk {

namespace {

constexpr std::array<std::string_view, 7> suppressedPrefixes{
    "socket %d state: ", "socket %d network: ", "socket %d send: ", "socket %d queue: ",
    "socket %d recv: ",  "socket %d loss: ",    "socket %d cc: "};

LogLevel levelOfKind(const char* kind) {
    switch (kind[0]) {
        case 'L':
            return LogLevel::debug;
        case 'W':
            return LogLevel::warn;
        default:
            return LogLevel::error;
    }
}

[[gnu::format(printf, 2, 0)]] void emitPrintfMessage(const char* kind, const char* format,
                                                     std::va_list arguments) {
    const LogLevel level = levelOfKind(kind);
    if (!logEnabled(level)) {
        return;
    }
    timeval now{};
    const bool haveTime = gettimeofday(&now, nullptr) == 0;
    emitLine(
        logLevelName(level),
        composePrintfMessage(kind, formatTimestamp(haveTime ? &now : nullptr), format, arguments));
}

}  // namespace

bool isSuppressedWarning(const char* format) {
    const std::string_view text(format);
    return std::any_of(suppressedPrefixes.begin(), suppressedPrefixes.end(),
                       [text](std::string_view prefix) { return text.starts_with(prefix); });
}

void loadTimeZone() {
    const timeval anyTime{};
    static_cast<void>(formatTimestamp(&anyTime));
}

std::string formatTimestamp(const timeval* now) {
    std::tm utc{};
    if (now == nullptr || gmtime_r(&now->tv_sec, &utc) == nullptr) {
        return {};
    }
    std::array<char, 100> text{};
    std::snprintf(text.data(), text.size(), "[%04d-%02d-%02dT%02d:%02d:%02d.%03d]",
                  utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                  utc.tm_sec, static_cast<int>(now->tv_usec / 1000));
    return text.data();
}

std::string composePrintfMessage(const char* kind, const std::string& timestamp, const char* format,
                                 std::va_list arguments) {
    std::array<char, maxPrintfMessageLength + 1> message{};
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the entry points have started it
    std::vsnprintf(message.data(), message.size(), format, arguments);
    // Kept: readers of the log recognise these warnings by the two blanks after the level name.
    const char* const lead = kind[0] == 'W' ? " " : "";
    return lead + timestamp + " " + message.data();
}

void Log(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    emitPrintfMessage("Log", format, arguments);
    va_end(arguments);
}

void Warning(const char* format, ...) {
    if (isSuppressedWarning(format)) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    emitPrintfMessage("Warning", format, arguments);
    va_end(arguments);
}

void Panic(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    emitPrintfMessage("Panic", format, arguments);
    va_end(arguments);
}

}  // namespace vesk
