#include "poll/poll_param.h"

namespace vesk {

bool stopThreads(PollParams& threads) {
    bool allEnded = true;
    for (const std::shared_ptr<PollParam>& worker : threads) {
        worker->thread.stop();
        allEnded = allEnded && !worker->thread.leftRunning();
    }
    threads.clear();
    return allEnded;
}

}  // namespace vesk
