#include "poll/poll_param.h"

namespace vesk {

void stopThreads(PollParams& threads) {
    for (const std::shared_ptr<PollParam>& worker : threads) {
        worker->thread.stop();
    }
    threads.clear();
}

}  // namespace vesk
