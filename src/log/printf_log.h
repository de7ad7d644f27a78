// The printf-style interface of the log, used by the socket routines. Each message has a UTC time
// stamp. Any thread.
#pragma once

#include <sys/time.h>

#include <cstdarg>
#include <cstddef>
#include <string>

namespace vesk {

/// Longest message in bytes, without its time stamp. A longer message is cut.
inline constexpr std::size_t maxPrintfMessageLength = 399;

/// Logs at debug level.
// Kept, like Panic: part of the log's interface; the socket routines log warnings only.
[[gnu::format(printf, 1, 2)]] void Log(const char* format, ...);

/// Logs at warn level, unless the format (not the formatted text) begins with one of the suppressed
/// prefixes.
[[gnu::format(printf, 1, 2)]] void Warning(const char* format, ...);

/// Logs at error level.
[[gnu::format(printf, 1, 2)]] void Panic(const char* format, ...);

/// Whether `Warning` suppresses messages of this format.
bool isSuppressedWarning(const char* format);

/// Makes the C library read the time zone file, which it does at the first conversion. Called at
/// start-up, before there are other threads, so that none of them opens a descriptor for it.
void loadTimeZone();

/// The UTC time stamp in brackets, truncated to milliseconds. Empty for a null pointer and for a
/// time that cannot be converted.
std::string formatTimestamp(const timeval* now);

/// The text that is logged: the time stamp, a blank, and the formatted message, cut if it is too
/// long. The kind is "Log", "Warning" or "Panic"; only its first character is used.
[[gnu::format(printf, 3, 0)]] std::string composePrintfMessage(const char* kind,
                                                               const std::string& timestamp,
                                                               const char* format,
                                                               std::va_list arguments);

}  // namespace vesk
