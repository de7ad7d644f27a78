// Reports to the service manager and the metrics whether the service is ready. The loop is in
// supervisor.cpp.
#include <algorithm>
#include <string>
#include <utility>

#include "service/supervisor.h"

namespace vesk::controller {

void Supervisor::finishRound() {
    countReload();
    if (!running()) {
        return;
    }
    const bool listens = std::ranges::all_of(
        instances_, [](const auto& it) { return it->deployment().listensEverywhere(); });
    if (listens) {
        ready_ = true;
        reloadTold_ = false;
        notification_.ready(summary());
    } else {
        tellReloaded(summary());
    }
}

/// The service manager expects READY=1 at the end of a reload, successful or not. At the start,
/// however, READY=1 is sent only once the forwarder listens.
void Supervisor::tellReloaded(std::string_view status) {
    if (std::exchange(reloadTold_, false)) {
        notification_.ready(status);
    } else {
        notification_.status(status);
    }
}

std::string Supervisor::summary() const {
    return instances_.front()->summary();
}

}  // namespace vesk::controller
