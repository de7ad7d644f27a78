// The printf-style way into the log, used by the low-level socket routines: each message carries a
// UTC time stamp. Any thread.
#pragma once

#include <sys/time.h>

#include <cstdarg>
#include <cstddef>
#include <string>

namespace vesk {

/// Longest message, without its time stamp, that the printf-style entry points let through;
/// what is longer is cut.
inline constexpr std::size_t maxPrintfMessageLength = 399;

/// Emits at debug level.
// Kept, like Panic: part of the log's interface; the socket routines have nothing but warnings.
[[gnu::format(printf, 1, 2)]] void Log(const char* format, ...);

/// Emits at warn level, unless the format (not the formatted text) begins with one of the
/// suppressed prefixes.
[[gnu::format(printf, 1, 2)]] void Warning(const char* format, ...);

/// Emits at error level.
[[gnu::format(printf, 1, 2)]] void Panic(const char* format, ...);

/// Whether "Warning" swallows messages of this format.
bool isSuppressedWarning(const char* format);

/// Converts one time. The C library reads the time zone's file when the first time is converted;
/// called at start-up, before there are threads, so that none of them makes a descriptor for it.
void loadTimeZone();

/// The bracketed UTC time stamp, milliseconds truncated; empty for no time.
std::string formatTimestamp(const timeval* now);

/// The whole message text as handed to the log: time stamp, a blank, the formatted and cut message.
/// The kind is "Log", "Warning" or "Panic"; its first character decides.
[[gnu::format(printf, 3, 0)]] std::string composePrintfMessage(const char* kind,
                                                               const std::string& timestamp,
                                                               const char* format,
                                                               std::va_list arguments);

}  // namespace vesk
