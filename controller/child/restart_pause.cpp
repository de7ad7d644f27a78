#include "child/restart_pause.h"

#include <algorithm>
#include <utility>

namespace vesk::controller {

namespace {

constexpr std::chrono::minutes healthyLife{1};

}  // namespace

RestartPause::RestartPause(std::chrono::milliseconds first, std::chrono::milliseconds greatest)
    : first_(first), greatest_(greatest), next_(std::min(first, greatest)) {}

std::chrono::milliseconds RestartPause::after(std::chrono::steady_clock::duration lived) {
    if (lived >= healthyLife) {
        next_ = std::min(first_, greatest_);
    }
    return std::exchange(next_, std::min(next_ * 2, greatest_));
}

}  // namespace vesk::controller
