// A worker on its thread, which serves descriptors by a function of the test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "log/log.h"
#include "poll/poll_loop.h"
#include "poll/poll_param.h"
#include "poll/receive_worker.h"
#include "support/thread_state.h"

namespace vesk {

class ReceiveWorkerTest : public testing::Test {
 protected:
    void TearDown() override { worker.thread.stop(); }

    void startWorker() {
        ASSERT_EQ(worker.thread.start([this] {
            mark.set();
            runReceiveWorker(worker);
        }),
                  0);
    }

    /// Starts the worker and returns when it waits for descriptors.
    void startWaitingWorker() {
        startWorker();
        ASSERT_TRUE(mark.eventuallyBlocks());
    }

    void hand(const std::vector<int>& fds) {
        unsigned long start = 0;
        distributeReadyFds(fds, {{std::shared_ptr<PollParam>(), &worker}}, start);
    }

    std::vector<int> served() {
        const std::lock_guard lock(servedLock_);
        return served_;
    }

    bool eventuallyServed(const std::vector<int>& expected) {
        return eventually([&] { return served() == expected; });
    }

    /// The receive call; by default it clears `keep` and returns one datagram.
    std::function<int(int fd, bool& keep)> receive = [](int, bool& keep) {
        keep = false;
        return 1;
    };
    /// Called between two passes.
    PassEndFunction passEnd = [](const LogDelay&) { return std::nullopt; };
    std::vector<std::uint32_t> parameters;
    PollParam worker{[this](int fd, bool& keep, std::uint32_t parameter) {
                         EXPECT_TRUE(keep);
                         const int result = receive(fd, keep);
                         const std::lock_guard lock(servedLock_);
                         served_.push_back(fd);
                         parameters.push_back(parameter);
                         return result;
                     },
                     [this](const LogDelay& lines) { return passEnd(lines); }};
    ThreadMark mark;

 private:
    std::mutex servedLock_;
    std::vector<int> served_;
};

}  // namespace vesk
