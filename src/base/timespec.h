// Converts between the C library's timespec and durations. Any thread.
#pragma once

#include <chrono>
#include <ctime>

namespace vesk {

inline timespec toTimespec(std::chrono::nanoseconds duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec time{};
    time.tv_sec = seconds.count();
    time.tv_nsec = (duration - seconds).count();
    return time;
}

inline std::chrono::nanoseconds toDuration(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace vesk
