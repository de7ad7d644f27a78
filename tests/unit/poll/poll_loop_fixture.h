// Runs the poll loop on its own thread with a real epoll set and collects its reports.
#pragma once

#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <iosfwd>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "poll/poll_param.h"
#include "support/descriptors.h"

namespace vesk {

/// One call of one of the loop's three callbacks.
struct Batch {
    /// "read", "write" or "error".
    std::string kind;
    std::vector<int> fds;

    bool operator==(const Batch&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Batch& batch);

/// A local stream socket. The other end makes it ready and detects that it is closed.
class WatchedSocket {
 public:
    WatchedSocket();

    int fd() const { return watched_.get(); }
    /// Releases the descriptor to the loop, which closes it when it is deleted.
    int giveAway() { return watched_.release(); }
    void makeReady();
    void drain();
    /// Waits until the watched end is closed.
    bool awaitClosed();
    void hangUp() { other_.reset(); }

 private:
    UniqueFd watched_;
    UniqueFd other_;
};

class PollLoopTest : public DescriptorCountingTest {
 protected:
    void SetUp() override;
    void TearDown() override;

    /// Starts the loop with callbacks that collect batches.
    void startLoop();
    /// The next reported batch; empty if none arrives in time.
    Batch nextBatch();
    /// Returns when the loop has executed every request sent so far.
    void awaitRequests();
    /// Fails the test if the loop has any further batch to report.
    void expectNoFurtherBatch();

    // Watched sockets exist until the loop has ended.

    WatchedSocket& newSocket() { return sockets_.emplace_back(); }
    std::deque<WatchedSocket>& newSockets(std::size_t count) { return rows_.emplace_back(count); }
    Pipe& newPipe() { return pipes_.emplace_back(); }
    /// A second descriptor of the same socket.
    int duplicate(int fd) { return duplicates_.emplace_back(dup(fd)).get(); }

    /// While it exists, the loop is blocked in a callback and does not wait for events.
    class Standstill {
     public:
        explicit Standstill(PollLoopTest& test);
        ~Standstill();
        Standstill(const Standstill&) = delete;
        Standstill& operator=(const Standstill&) = delete;

     private:
        PollLoopTest& test_;
        WatchedSocket gate_;
    };

    void add(int fd, int events);
    void arm(int fd, int events);
    void remove(int fd);

    std::int32_t activeCount() const { return param->ActiveEvtNr.load(); }

    UniqueFd sender;
    UniqueFd server;
    PollParams readQueues;
    PollParams writeQueues;
    std::unique_ptr<PollThreadParam> param;

 private:
    void report(const std::string& kind, const std::vector<int>& fds);

    std::list<WatchedSocket> sockets_;
    std::list<std::deque<WatchedSocket>> rows_;
    std::list<Pipe> pipes_;
    std::list<UniqueFd> duplicates_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::list<Batch> batches_;
    bool standing_ = false;
};

}  // namespace vesk
